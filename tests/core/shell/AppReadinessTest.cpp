#include "core/shell/AppReadiness.h"
#include "core/async/CancellationError.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/ScriptedRewriteEngine.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

using Availability = LocalModelAvailability;

std::exception_ptr engineError(LocalRewriteEngineError::Kind kind) {
    return std::make_exception_ptr(LocalRewriteEngineError(kind));
}

class AppReadinessTest : public ::testing::Test {
protected:
    void refresh(Availability availability) {
        engine_.availabilityValue = availability;
        readiness_.refreshSystemChecks();
    }

    testing::ScriptedRewriteEngine engine_;
    bool trusted_ = true;
    AppReadiness readiness_{engine_, [this] { return trusted_; }, PlatformTerms::linux()};
};

TEST_F(AppReadinessTest, TextsFollowTheStateInPlatformWords) {
    refresh(Availability::deviceNotEligible);
    EXPECT_EQ(readiness_.modelStatusMessage(), "This computer is not eligible for on-device rewriting.");
    refresh(Availability::appleIntelligenceNotEnabled);
    EXPECT_EQ(readiness_.modelStatusMessage(), "Enable on-device intelligence in your desktop's settings.");

    refresh(Availability::available);
    EXPECT_EQ(readiness_.modelStatusMessage(), "The on-device model is available; prepare it to continue.");
    EXPECT_EQ(readiness_.hotKeyStatusText(), "Shortcut registration needs attention.");
    readiness_.setHotKeyRegistrationError(QStringLiteral("Alt+Space is already in use."));
    EXPECT_EQ(readiness_.hotKeyStatusText(), "Alt+Space is already in use.");
    readiness_.setHotKeyReady(true);
    EXPECT_EQ(readiness_.hotKeyStatusText(), "Registered and ready.");
    EXPECT_FALSE(readiness_.isFullyReady());

    int changes = 0;
    const Subscription counting = readiness_.changed.connect([&] { ++changes; });
    test::runTask(readiness_.prepareModel());
    EXPECT_EQ(changes, 2); // preparing, then prepared
    readiness_.refreshSystemChecks();
    readiness_.setHotKeyReady(true);
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(readiness_.modelStatusMessage(), "The on-device model is ready on this computer.");
    EXPECT_TRUE(readiness_.isFullyReady());

    refresh(Availability::modelNotReady); // the model went away
    EXPECT_FALSE(readiness_.modelReady());
    EXPECT_EQ(readiness_.modelStatusMessage(), "The on-device model is still downloading or preparing.");
}

TEST_F(AppReadinessTest, ConcurrentCallersShareOnePreparationAndReturnAfterIt) {
    engine_.holdPreparations = true;
    TaskOutcome<void> first(readiness_.prepareModel());
    TaskOutcome<void> second(readiness_.prepareModel());
    EXPECT_EQ(readiness_.modelStatusMessage(), "Preparing the on-device model…");
    test::pumpFor(20);
    EXPECT_FALSE(first.isFinished() || second.isFinished());

    engine_.finishPreparation();
    ASSERT_TRUE(test::pumpUntil([&] { return first.isFinished() && second.isFinished(); }));
    EXPECT_EQ(engine_.prepareCalls, 1);
    EXPECT_TRUE(readiness_.modelReady());
}

TEST_F(AppReadinessTest, FailureTextWinsUntilTheNextPreparationButADroppedOneIsNoFailure) {
    engine_.prepareError = engineError(LocalRewriteEngineError::Kind::modelBusy);
    test::runTask(readiness_.prepareModel());
    readiness_.refreshSystemChecks(); // still available: the failure stands
    EXPECT_EQ(readiness_.modelStatusMessage(),
              "The on-device model is temporarily busy. Try again in a moment.");
    EXPECT_FALSE(readiness_.modelReady());

    engine_.prepareError = std::make_exception_ptr(CancellationError{}); // memory pressure
    engine_.holdPreparations = true;
    TaskOutcome<void> retry(readiness_.prepareModel());
    EXPECT_EQ(readiness_.modelStatusMessage(), "Preparing the on-device model…");
    engine_.finishPreparation(engine_.prepareError);
    ASSERT_TRUE(test::pumpUntil([&] { return retry.isFinished(); }));
    EXPECT_EQ(readiness_.modelStatusMessage(), "The on-device model is available; prepare it to continue.");
}

TEST_F(AppReadinessTest, SupersededPreparationNeverOverwritesTheNewerOne) {
    engine_.holdPreparations = true;
    TaskOutcome<void> stale(readiness_.prepareModel());
    refresh(Availability::modelNotReady);
    EXPECT_FALSE(readiness_.isPreparingModel());

    engine_.availabilityValue = Availability::available;
    TaskOutcome<void> fresh(readiness_.prepareModel());
    engine_.finishPreparation(engineError(LocalRewriteEngineError::Kind::modelNotReady));
    ASSERT_TRUE(test::pumpUntil([&] { return stale.isFinished(); }));
    EXPECT_TRUE(readiness_.isPreparingModel());
    EXPECT_EQ(readiness_.modelPreparationError(), std::nullopt);

    engine_.finishPreparation();
    ASSERT_TRUE(test::pumpUntil([&] { return fresh.isFinished(); }));
    EXPECT_TRUE(readiness_.modelReady());
}

} // namespace
} // namespace parlune
