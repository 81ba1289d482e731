#include "core/shell/WorkflowTest.h"
#include "core/async/CancellationError.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/selection/TextReplacementError.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"
#include "core/shell/WorkflowTestPolicy.h"
#include "support/FakeCredentialStore.h"
#include "support/FakeUserDefaults.h"
#include "support/ManualClock.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/ScopedPlatformTerms.h"
#include "support/ScriptedRewriteEngine.h"
#include "support/ScriptedSelectionReplacer.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

namespace parlune {
namespace {

using namespace std::chrono_literals;
using testing::FakeCredentialStore;
using testing::FakeUserDefaults;
using testing::ManualClock;
using testing::ScopedPlatformTerms;
using testing::ScriptedRewriteEngine;
using testing::ScriptedSelectionReplacer;

class RecordingTarget final : public WorkflowTestTarget {
public:
    bool prepareForTest(const QString& text) override {
        prepared.push_back(text);
        return focusable;
    }
    bool focusable = true;
    std::vector<QString> prepared;
};

const QString sample = QString::fromUtf8(WorkflowTestPolicy::introductorySample);

class WorkflowTestTest : public ::testing::Test {
protected:
    WorkflowTestTest() { test::runTask(readiness_.prepareModel()); }

    void run(const QString& text = sample) { test::runTask(workflow_.run(text, target_)); }
    void scriptCapture(const QString& text = sample) {
        replacer_.captures.push_back(
            ScriptedSelectionReplacer::selection(text, 0, QStringLiteral("app.parlune")));
    }
    QString lastLine() const { return diagnostics_.entries().front().message; }

    ScopedPlatformTerms mac_{PlatformTerms::macOS()};
    FakeUserDefaults defaults_;
    FakeCredentialStore credentials_;
    SettingsStore settings_{defaults_, credentials_, false};
    ScriptedRewriteEngine engine_;
    ScriptedSelectionReplacer replacer_;
    DiagnosticsLogger diagnostics_;
    bool trusted_ = true;
    AppReadiness readiness_{engine_, [this] { return trusted_; }};
    int accessibilityRequests_ = 0;
    ManualClock clock_;
    WorkflowTest workflow_{settings_,    engine_,    replacer_,
                           diagnostics_, readiness_, [this] { ++accessibilityRequests_; },
                           clock_};
    RecordingTarget target_;
};

TEST_F(WorkflowTestTest, ResultDifferingOnlyInTrailingWhiteSpaceIsAppliedAndCompletesSetup) {
    EXPECT_EQ(workflow_.buttonTitle(), "Run Workflow Test");
    scriptCapture();
    engine_.answers.push_back(sample + u'\n');
    run();

    EXPECT_EQ(target_.prepared, std::vector<QString>{sample});
    ASSERT_EQ(engine_.calls.size(), 1u);
    EXPECT_EQ(engine_.calls[0].mode, RewriteMode::improvePrompt);
    ASSERT_EQ(replacer_.replacements.size(), 1u);
    EXPECT_EQ(replacer_.replacements[0].first, sample + u'\n');
    EXPECT_TRUE(settings_.hasCompletedTestRewrite());
    EXPECT_TRUE(workflow_.passed());
    EXPECT_FALSE(workflow_.isRunning());
    EXPECT_EQ(workflow_.message(), "Workflow test passed. The sample was rewritten in place.");
}

TEST_F(WorkflowTestTest, IdenticalResultReplacesNothingAndLeavesSetupAsItWas) {
    scriptCapture();
    engine_.answers.push_back(sample);
    run();
    EXPECT_TRUE(replacer_.replacements.empty());
    EXPECT_FALSE(settings_.hasCompletedTestRewrite());
    EXPECT_FALSE(workflow_.passed());
    EXPECT_EQ(workflow_.message(), WorkflowTestPolicy::unchangedMessage);
    EXPECT_EQ(lastLine(), "stage=workflow_test outcome=unchanged");

    settings_.markTestRewriteCompleted();
    scriptCapture();
    engine_.answers.push_back(sample);
    run();
    EXPECT_EQ(workflow_.message(), WorkflowTestPolicy::unchangedAfterSetupMessage);
    EXPECT_TRUE(settings_.hasCompletedTestRewrite());
}

TEST_F(WorkflowTestTest, FailuresShowTheirSentenceAndLogTheTestsOwnCategory) {
    using ReplacementKind = TextReplacementError::Kind;
    const auto replacementError = [](ReplacementKind kind) {
        return std::make_exception_ptr(TextReplacementError(kind));
    };
    engine_.duringRewrite = [this] { clock_.advance(350ms); };

    // Capture: its own category, not the shortcut path's.
    replacer_.captures.push_back(replacementError(ReplacementKind::unableToReadFocusedElement));
    run();
    EXPECT_EQ(lastLine(), "stage=failed app=unknown length=0 elapsed_ms=0 error=capture_failed");
    EXPECT_EQ(workflow_.message(),
              UserFacingErrorMessage::message(replacementError(ReplacementKind::unableToReadFocusedElement)));

    // Rewrite: the length and application of the capture, the time of the run.
    scriptCapture();
    engine_.answers.push_back(std::make_exception_ptr(
        LocalRewriteEngineError(LocalRewriteEngineError::Kind::appleIntelligenceNotEnabled)));
    run();
    EXPECT_EQ(lastLine(),
              QStringLiteral(
                  "stage=failed app=app.parlune length=%1 elapsed_ms=350 error=apple_intelligence_disabled")
                  .arg(sample.size()));

    // Replacement.
    scriptCapture();
    replacer_.replaceError = replacementError(ReplacementKind::selectionChanged);
    run();
    EXPECT_TRUE(lastLine().endsWith(" error=selection_changed"));

    // Anything else.
    scriptCapture();
    replacer_.replaceError = std::make_exception_ptr(std::runtime_error("socket closed"));
    run();
    EXPECT_TRUE(lastLine().endsWith(" error=workflow_test_failed"));
    EXPECT_EQ(workflow_.message(), "The local workflow test could not finish. Try again.");

    EXPECT_FALSE(workflow_.isRunning());
    EXPECT_FALSE(settings_.hasCompletedTestRewrite());
}

TEST_F(WorkflowTestTest, SecondPressWhileRunningDoesNothingAndCancellationEndsTheRun) {
    scriptCapture();
    engine_.holdRewrites = true;
    std::stop_source stop;
    TaskOutcome<void> first(workflow_.run(sample, target_, stop.get_token()));
    ASSERT_TRUE(test::pumpUntil([&] { return engine_.heldCount() == 1; }));
    EXPECT_TRUE(workflow_.isRunning());
    EXPECT_EQ(workflow_.buttonTitle(), "Testing...");
    EXPECT_EQ(workflow_.message(), "Running the on-device workflow…");

    run();
    EXPECT_EQ(target_.prepared.size(), 1u);
    EXPECT_EQ(replacer_.captureCalls, 1);

    stop.request_stop();
    ASSERT_TRUE(test::pumpUntil([&] { return first.isFinished(); }));
    EXPECT_FALSE(workflow_.isRunning());
    EXPECT_EQ(workflow_.message(), "The local workflow test was cancelled. Run it again when you're ready.");
    EXPECT_TRUE(lastLine().endsWith(" error=cancelled"));
}

TEST_F(WorkflowTestTest, UnmetPreconditionsStopBeforeTouchingTheField) {
    run(QString());
    EXPECT_EQ(workflow_.message(), "Enter sample text before running the workflow test.");

    target_.focusable = false;
    run();
    EXPECT_EQ(workflow_.message(),
              "Parlune could not focus its workflow test field. Keep Settings open and try again.");
    EXPECT_EQ(lastLine(), "stage=workflow_test outcome=target_unavailable");
    EXPECT_FALSE(workflow_.isRunning());
    target_.prepared.clear();

    engine_.availabilityValue = LocalModelAvailability::modelNotReady;
    readiness_.refreshSystemChecks();
    EXPECT_EQ(workflow_.buttonTitle(), "Check On-Device Model");
    run();
    EXPECT_EQ(workflow_.message(), "The on-device model is still downloading or preparing.");
    EXPECT_EQ(lastLine(), "stage=workflow_test outcome=model_unavailable");

    trusted_ = false;
    readiness_.refreshSystemChecks();
    EXPECT_EQ(workflow_.buttonTitle(), "Enable Accessibility");
    run();
    EXPECT_EQ(accessibilityRequests_, 1);
    EXPECT_EQ(workflow_.message(), WorkflowTestPolicy::accessibilityInstruction(PlatformTerms::macOS()));

    EXPECT_TRUE(target_.prepared.empty());
    EXPECT_EQ(replacer_.captureCalls, 0);
}

TEST(WorkflowTestPolicyTest, ByteDifferenceCategoriesAndExplanation) {
    EXPECT_FALSE(WorkflowTestPolicy::isByteDifferent(QStringLiteral("Café"), QStringLiteral("Café")));
    EXPECT_TRUE(WorkflowTestPolicy::isByteDifferent(QStringLiteral("Café"), QStringLiteral("Cafe\u0301")));
    EXPECT_TRUE(WorkflowTestPolicy::isByteDifferent(QStringLiteral("Café"), QStringLiteral("café")));
    EXPECT_TRUE(WorkflowTestPolicy::isByteDifferent(QStringLiteral("Café"), QStringLiteral("Café ")));
    EXPECT_EQ(WorkflowTestPolicy::workflowErrorCategory(
                  std::make_exception_ptr(TextReplacementError(TextReplacementError::Kind::noSelectedText))),
              "no_selection");
    EXPECT_EQ(WorkflowTestPolicy::workflowErrorCategory(
                  std::make_exception_ptr(LocalRewriteEngineError(LocalRewriteEngineError::Kind::modelBusy))),
              "model_busy");
    EXPECT_EQ(WorkflowTest::explanation(PlatformTerms::linux()),
              "This captures, rewrites, verifies, and replaces the selection entirely on this computer.");
}

} // namespace
} // namespace parlune
