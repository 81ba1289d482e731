#include "core/shell/AppReadiness.h"
#include "core/async/CancellationError.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/ScopedPlatformTerms.h"
#include "support/ScriptedRewriteEngine.h"

#include <QCoro/QCoroTask>

#include <gtest/gtest.h>

namespace parlune {
namespace {

using testing::ScopedPlatformTerms;
using testing::ScriptedRewriteEngine;

class AppReadinessTest : public ::testing::Test {
protected:
    AppReadinessTest() {
        subscription_ = readiness_.changed.connect([this] { ++changes_; });
    }

    void setAvailability(LocalModelAvailability availability) { engine_.availabilityValue = availability; }

    ScopedPlatformTerms mac_{PlatformTerms::macOS()};
    ScriptedRewriteEngine engine_;
    bool trusted_ = true;
    AppReadiness readiness_{engine_, [this] { return trusted_; }, PlatformTerms::macOS()};
    int changes_ = 0;
    Subscription subscription_;
};

TEST_F(AppReadinessTest, ModelTextFollowsAvailabilityWithThePlatformWords) {
    const std::pair<LocalModelAvailability, QString> expected[] = {
        {LocalModelAvailability::available, "The on-device model is available; prepare it to continue."},
        {LocalModelAvailability::deviceNotEligible, "This Mac is not eligible for on-device rewriting."},
        {LocalModelAvailability::appleIntelligenceNotEnabled,
         "Enable on-device intelligence in System Settings."},
        {LocalModelAvailability::modelNotReady, "The on-device model is still downloading or preparing."},
        {LocalModelAvailability::unsupportedLocale,
         "The current language or locale is not supported by the on-device model."},
    };
    for (const auto& [availability, text] : expected) {
        setAvailability(availability);
        readiness_.refreshSystemChecks();
        EXPECT_EQ(readiness_.modelStatusMessage(), text);
        EXPECT_FALSE(readiness_.modelReady());
    }

    setAvailability(LocalModelAvailability::deviceNotEligible);
    AppReadiness onLinux(
        engine_, [] { return false; }, PlatformTerms::linux());
    EXPECT_EQ(onLinux.modelStatusMessage(), "This computer is not eligible for on-device rewriting.");
    setAvailability(LocalModelAvailability::appleIntelligenceNotEnabled);
    onLinux.refreshSystemChecks();
    EXPECT_EQ(onLinux.modelStatusMessage(), "Enable on-device intelligence in your desktop's settings.");
    EXPECT_EQ(onLinux.accessibilityStatusText(), "Required to capture and replace selected text.");
}

TEST_F(AppReadinessTest, ShortcutAndAccessibilityTextsAndFullReadiness) {
    EXPECT_EQ(readiness_.hotKeyStatusText(), "Shortcut registration needs attention.");
    readiness_.setHotKeyRegistrationError(QStringLiteral("Alt+Space is already in use."));
    EXPECT_EQ(readiness_.hotKeyStatusText(), "Alt+Space is already in use.");
    readiness_.setHotKeyReady(true);
    readiness_.setHotKeyRegistrationError(std::nullopt);
    EXPECT_EQ(readiness_.hotKeyStatusText(), "Registered and ready.");
    EXPECT_EQ(readiness_.accessibilityStatusText(), "Enabled");
    EXPECT_FALSE(readiness_.isFullyReady());

    test::runTask(readiness_.prepareModel());
    EXPECT_EQ(readiness_.modelStatusMessage(), "The on-device model is ready on this Mac.");
    EXPECT_TRUE(readiness_.isFullyReady());

    trusted_ = false;
    readiness_.refreshSystemChecks();
    EXPECT_FALSE(readiness_.isFullyReady());
}

TEST_F(AppReadinessTest, ChangedFiresOncePerEffectiveChange) {
    readiness_.setHotKeyReady(false);
    readiness_.refreshSystemChecks();
    EXPECT_EQ(changes_, 0);
    readiness_.setHotKeyReady(true);
    readiness_.setHotKeyReady(true);
    EXPECT_EQ(changes_, 1);
    trusted_ = false;
    setAvailability(LocalModelAvailability::modelNotReady);
    readiness_.refreshSystemChecks();
    EXPECT_EQ(changes_, 2);
}

TEST_F(AppReadinessTest, ConcurrentCallersShareOnePreparationAndReturnAfterIt) {
    engine_.holdPreparations = true;
    QCoro::Task<void> first = readiness_.prepareModel();
    QCoro::Task<void> second = readiness_.prepareModel();
    EXPECT_TRUE(readiness_.isPreparingModel());
    EXPECT_EQ(readiness_.modelStatusMessage(), "Preparing the on-device model…");
    EXPECT_EQ(engine_.prepareCalls, 1);

    TaskOutcome<void> firstOutcome(std::move(first));
    TaskOutcome<void> secondOutcome(std::move(second));
    test::pumpFor(20);
    EXPECT_FALSE(firstOutcome.isFinished());
    EXPECT_FALSE(secondOutcome.isFinished());

    engine_.finishPreparation();
    ASSERT_TRUE(test::pumpUntil([&] { return firstOutcome.isFinished() && secondOutcome.isFinished(); }));
    EXPECT_EQ(engine_.prepareCalls, 1);
    EXPECT_TRUE(readiness_.isModelPrepared());
    EXPECT_FALSE(readiness_.isPreparingModel());
    EXPECT_TRUE(readiness_.modelReady());
}

TEST_F(AppReadinessTest, FailedPreparationTextWinsUntilTheNextPreparationStarts) {
    engine_.prepareError =
        std::make_exception_ptr(LocalRewriteEngineError(LocalRewriteEngineError::Kind::modelBusy));
    test::runTask(readiness_.prepareModel());
    const QString failure = "The on-device model is temporarily busy. Try again in a moment.";
    EXPECT_EQ(readiness_.modelPreparationError(), failure);
    EXPECT_EQ(readiness_.modelStatusMessage(), failure);
    readiness_.refreshSystemChecks(); // still available: the failure stands
    EXPECT_EQ(readiness_.modelStatusMessage(), failure);
    EXPECT_FALSE(readiness_.modelReady());

    engine_.prepareError = nullptr;
    engine_.holdPreparations = true;
    TaskOutcome<void> retry(readiness_.prepareModel());
    EXPECT_EQ(readiness_.modelStatusMessage(), "Preparing the on-device model…");
    engine_.finishPreparation();
    ASSERT_TRUE(test::pumpUntil([&] { return retry.isFinished(); }));
    EXPECT_EQ(readiness_.modelPreparationError(), std::nullopt);
    EXPECT_TRUE(readiness_.modelReady());
}

TEST_F(AppReadinessTest, PreparedModelThatGoesAwayIsNotReadyAfterRefresh) {
    test::runTask(readiness_.prepareModel());
    ASSERT_TRUE(readiness_.modelReady());
    setAvailability(LocalModelAvailability::modelNotReady);
    EXPECT_TRUE(readiness_.modelReady()); // nothing asked yet
    readiness_.refreshSystemChecks();
    EXPECT_FALSE(readiness_.modelReady());
    EXPECT_FALSE(readiness_.isModelPrepared());
    EXPECT_EQ(readiness_.modelStatusMessage(), "The on-device model is still downloading or preparing.");
}

TEST_F(AppReadinessTest, SupersededPreparationNeverOverwritesTheNewerOne) {
    engine_.holdPreparations = true;
    TaskOutcome<void> stale(readiness_.prepareModel());
    setAvailability(LocalModelAvailability::modelNotReady);
    readiness_.refreshSystemChecks();
    EXPECT_FALSE(readiness_.isPreparingModel());

    setAvailability(LocalModelAvailability::available);
    TaskOutcome<void> fresh(readiness_.prepareModel());
    EXPECT_EQ(engine_.prepareCalls, 2);
    engine_.finishPreparation(
        std::make_exception_ptr(LocalRewriteEngineError(LocalRewriteEngineError::Kind::modelNotReady)));
    ASSERT_TRUE(test::pumpUntil([&] { return stale.isFinished(); }));
    EXPECT_TRUE(readiness_.isPreparingModel());
    EXPECT_EQ(readiness_.modelPreparationError(), std::nullopt);
    EXPECT_FALSE(fresh.isFinished());

    engine_.finishPreparation();
    ASSERT_TRUE(test::pumpUntil([&] { return fresh.isFinished(); }));
    EXPECT_TRUE(readiness_.modelReady());
}

TEST_F(AppReadinessTest, PreparationDroppedByTheEngineIsNoFailure) {
    engine_.prepareError = std::make_exception_ptr(CancellationError{});
    test::runTask(readiness_.prepareModel());
    EXPECT_EQ(readiness_.modelPreparationError(), std::nullopt);
    EXPECT_EQ(readiness_.modelStatusMessage(), "The on-device model is available; prepare it to continue.");
}

} // namespace
} // namespace parlune
