#include "core/shell/WorkflowTest.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"
#include "core/shell/WorkflowTestPolicy.h"
#include "support/FakeCredentialStore.h"
#include "support/FakeUserDefaults.h"
#include "support/ManualClock.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/ScriptedRewriteEngine.h"
#include "support/ScriptedSelectionReplacer.h"

#include <gtest/gtest.h>

#include <QStringList>

#include <stdexcept>

namespace parlune {
namespace {

using testing::ScriptedSelectionReplacer;
using ReplacementKind = TextReplacementError::Kind;

class RecordingTarget final : public WorkflowTestTarget {
public:
    bool prepareForTest(const QString& text) override {
        prepared << text;
        return focusable;
    }
    bool focusable = true;
    QStringList prepared;
};

const QString sample = QString::fromUtf8(WorkflowTestPolicy::introductorySample);

class WorkflowTestTest : public ::testing::Test {
protected:
    WorkflowTestTest() { test::runTask(readiness_.prepareModel()); }

    // Runs the test on a capture of `captured` (an error, or the sample when none is given).
    void run(std::optional<ScriptedSelectionReplacer::CaptureOutcome> captured = std::nullopt) {
        replacer_.captures.push_back(
            captured.value_or(ScriptedSelectionReplacer::selection(sample, 0, "app.parlune")));
        test::runTask(workflow_.run(sample, target_));
        EXPECT_FALSE(workflow_.isRunning());
    }
    QString lastLine() const { return diagnostics_.entries().front().message; }

    testing::FakeUserDefaults defaults_;
    testing::FakeCredentialStore credentials_;
    SettingsStore settings_{defaults_, credentials_, false};
    testing::ScriptedRewriteEngine engine_;
    ScriptedSelectionReplacer replacer_;
    DiagnosticsLogger diagnostics_;
    bool trusted_ = true;
    AppReadiness readiness_{engine_, [this] { return trusted_; }};
    int accessibilityRequests_ = 0;
    testing::ManualClock clock_;
    WorkflowTest workflow_{settings_,    engine_,    replacer_,
                           diagnostics_, readiness_, [this] { ++accessibilityRequests_; },
                           clock_};
    RecordingTarget target_;
};

TEST_F(WorkflowTestTest, ResultDifferingOnlyInTrailingWhiteSpaceIsAppliedAndCompletesSetup) {
    engine_.answers.push_back(sample + u'\n');
    run();
    EXPECT_EQ(target_.prepared, QStringList{sample});
    EXPECT_EQ(engine_.calls.at(0).mode, RewriteMode::improvePrompt);
    EXPECT_EQ(replacer_.replacements.at(0).first, sample + u'\n');
    EXPECT_TRUE(settings_.hasCompletedTestRewrite());
    EXPECT_TRUE(workflow_.passed());
    EXPECT_EQ(workflow_.message(), "Workflow test passed. The sample was rewritten in place.");
}

TEST_F(WorkflowTestTest, IdenticalResultReplacesNothingAndLeavesSetupAsItWas) {
    engine_.answers.push_back(sample);
    run();
    EXPECT_TRUE(replacer_.replacements.empty());
    EXPECT_FALSE(settings_.hasCompletedTestRewrite());
    EXPECT_EQ(workflow_.message(), WorkflowTestPolicy::unchangedMessage);
    EXPECT_EQ(lastLine(), "stage=workflow_test outcome=unchanged");

    settings_.markTestRewriteCompleted();
    engine_.answers.push_back(sample);
    run();
    EXPECT_EQ(workflow_.message(), WorkflowTestPolicy::unchangedAfterSetupMessage);
}

TEST_F(WorkflowTestTest, FailuresShowTheirSentenceAndLogTheTestsOwnCategory) {
    run(std::make_exception_ptr(TextReplacementError(ReplacementKind::unableToReadFocusedElement)));
    EXPECT_EQ(lastLine(), "stage=failed app=unknown length=0 elapsed_ms=0 error=capture_failed");
    EXPECT_EQ(workflow_.message(),
              "Parlune cannot read text in this application. Try another editable text field.");

    engine_.duringRewrite = [this] { clock_.advance(std::chrono::milliseconds(350)); };
    engine_.answers.push_back(std::make_exception_ptr(
        LocalRewriteEngineError(LocalRewriteEngineError::Kind::appleIntelligenceNotEnabled)));
    run();
    EXPECT_EQ(lastLine(), QStringLiteral("stage=failed app=app.parlune length=%1 elapsed_ms=350 "
                                         "error=apple_intelligence_disabled")
                              .arg(sample.size()));

    replacer_.replaceError = std::make_exception_ptr(std::runtime_error("socket closed"));
    run();
    EXPECT_TRUE(lastLine().endsWith(" error=workflow_test_failed"));
    EXPECT_EQ(workflow_.message(), "The local workflow test could not finish. Try again.");
    EXPECT_FALSE(settings_.hasCompletedTestRewrite());
}

TEST_F(WorkflowTestTest, SecondPressWhileRunningDoesNothingAndCancellationEndsTheRun) {
    replacer_.captures.push_back(ScriptedSelectionReplacer::selection(sample));
    engine_.holdRewrites = true;
    std::stop_source stop;
    TaskOutcome<void> first(workflow_.run(sample, target_, stop.get_token()));
    ASSERT_TRUE(test::pumpUntil([&] { return engine_.heldCount() == 1; }));
    EXPECT_EQ(workflow_.buttonTitle(), "Testing...");

    test::runTask(workflow_.run(sample, target_));
    test::runTask(workflow_.run(QString(), target_));
    EXPECT_EQ(target_.prepared.size(), 1);
    EXPECT_TRUE(workflow_.isRunning());
    EXPECT_EQ(workflow_.message(), "Running the on-device workflow…");

    stop.request_stop();
    ASSERT_TRUE(test::pumpUntil([&] { return first.isFinished(); }));
    EXPECT_FALSE(workflow_.isRunning());
    EXPECT_EQ(workflow_.message(), "The local workflow test was cancelled. Run it again when you're ready.");
    EXPECT_TRUE(lastLine().endsWith(" error=cancelled"));
}

TEST_F(WorkflowTestTest, UnmetPreconditionsStopBeforeCapturing) {
    test::runTask(workflow_.run(QString(), target_));
    EXPECT_EQ(workflow_.message(), "Enter sample text before running the workflow test.");

    target_.focusable = false;
    test::runTask(workflow_.run(sample, target_));
    EXPECT_EQ(workflow_.message(),
              "Parlune could not focus its workflow test field. Keep Settings open and try again.");
    EXPECT_EQ(lastLine(), "stage=workflow_test outcome=target_unavailable");

    engine_.availabilityValue = LocalModelAvailability::modelNotReady;
    readiness_.refreshSystemChecks();
    EXPECT_EQ(workflow_.buttonTitle(), "Check On-Device Model");
    test::runTask(workflow_.run(sample, target_));
    EXPECT_EQ(workflow_.message(), "The on-device model is still downloading or preparing.");
    EXPECT_EQ(lastLine(), "stage=workflow_test outcome=model_unavailable");

    trusted_ = false;
    readiness_.refreshSystemChecks();
    EXPECT_EQ(workflow_.buttonTitle(), "Enable Accessibility");
    test::runTask(workflow_.run(sample, target_));
    EXPECT_EQ(accessibilityRequests_, 1);
    EXPECT_EQ(workflow_.message(), WorkflowTestPolicy::accessibilityInstruction());
    EXPECT_EQ(replacer_.captureCalls, 0);
}

} // namespace
} // namespace parlune
