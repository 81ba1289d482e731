#include "core/pipeline/RewriteCoordinator.h"
#include "core/async/CancellationError.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/selection/TextReplacementError.h"
#include "core/settings/SettingsStore.h"

#include "support/FakeCredentialStore.h"
#include "support/FakeUserDefaults.h"
#include "support/ManualClock.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/ScriptedRewriteEngine.h"
#include "support/ScriptedSelectionReplacer.h"

#include <gtest/gtest.h>

#include <QSet>

#include <stdexcept>

namespace parlune {
namespace {

using testing::ManualClock;
using testing::ScriptedRewriteEngine;
using testing::ScriptedSelectionReplacer;
using EngineKind = LocalRewriteEngineError::Kind;
using ReplacementKind = TextReplacementError::Kind;

class RecordingReporter final : public RewriteStatusReporting {
public:
    void showStatus(const QString& message) override { messages.push_back(message); }
    std::vector<QString> messages;
};

template <typename Error> std::exception_ptr errorOf(Error error) {
    return std::make_exception_ptr(error);
}

class RewriteCoordinatorTest : public ::testing::Test {
protected:
    testing::FakeUserDefaults defaults;
    testing::FakeCredentialStore credentials;
    SettingsStore settings{defaults, credentials, false};
    ManualClock clock;
    DiagnosticsLogger logger{80, clock};
    std::shared_ptr<ScriptedRewriteEngine> engine = std::make_shared<ScriptedRewriteEngine>();
    std::shared_ptr<ScriptedSelectionReplacer> replacer = std::make_shared<ScriptedSelectionReplacer>();
    std::shared_ptr<RecordingReporter> reporter = std::make_shared<RecordingReporter>();
    std::unique_ptr<RewriteCoordinator> coordinator =
        std::make_unique<RewriteCoordinator>(settings, engine, replacer, logger, clock, reporter);

    // Log lines, oldest first.
    std::vector<QString> lines() const {
        std::vector<QString> result;
        for (auto entry = logger.entries().rbegin(); entry != logger.entries().rend(); ++entry) {
            result.push_back(entry->message);
        }
        return result;
    }

    // Presses the shortcut and lets the pipeline run until every press has finished.
    void pressAndFinish() {
        coordinator->submitRewriteSelection();
        finish();
    }
    void finish() {
        ASSERT_TRUE(test::pumpUntil([&] { return coordinator->outstandingShortcutRequests() == 0; }));
    }

    static QString line(const char* text) { return QString::fromUtf8(text); }
};

TEST_F(RewriteCoordinatorTest, ReplacesTheSelectionAndTimesEveryStage) {
    settings.setRewriteMode(RewriteMode::professional);
    settings.setWritingPreferences(QStringLiteral("Formal tone"), RewriteMode::professional);
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("hey team")));
    engine->answers.push_back(QStringLiteral("Hello team"));
    engine->duringRewrite = [&] { clock.advance(std::chrono::microseconds(1'500'900)); };

    pressAndFinish();

    ASSERT_EQ(engine->calls.size(), 1u);
    EXPECT_EQ(engine->calls[0].text, QStringLiteral("hey team"));
    EXPECT_EQ(engine->calls[0].mode, RewriteMode::professional);
    EXPECT_EQ(engine->calls[0].preferences, QStringLiteral("Formal tone"));
    EXPECT_EQ(replacer->validatedTexts, std::vector<QString>{QStringLiteral("hey team")});
    ASSERT_EQ(replacer->replacements.size(), 1u);
    EXPECT_EQ(replacer->replacements[0].first, QStringLiteral("Hello team"));
    EXPECT_EQ(lines(), (std::vector<QString>{
                           line("stage=capture app=org.example.Editor length=8 elapsed_ms=0"),
                           line("stage=modelRewrite app=org.example.Editor length=8 elapsed_ms=1500"),
                           line("stage=replacement app=org.example.Editor length=8 elapsed_ms=0"),
                           line("stage=completed app=org.example.Editor length=8 elapsed_ms=1500"),
                       }));
    EXPECT_TRUE(reporter->messages.empty());
    ASSERT_EQ(logger.rewritePerformanceEntries().size(), 1u);
}

TEST_F(RewriteCoordinatorTest, LengthCountsCharactersAndTimeNeverRunsBackwards) {
    replacer->captures.push_back(
        ScriptedSelectionReplacer::selection(QString::fromUtf8("cafe\u0301 \U0001F1EB\U0001F1F7")));
    engine->answers.push_back(QStringLiteral("changed"));
    engine->duringRewrite = [&] { clock.time -= std::chrono::seconds(5); }; // the wall clock was set back

    pressAndFinish();

    EXPECT_EQ(lines()[1], line("stage=modelRewrite app=org.example.Editor length=6 elapsed_ms=0"));
    EXPECT_EQ(lines()[3], line("stage=completed app=org.example.Editor length=6 elapsed_ms=0"));
}

TEST_F(RewriteCoordinatorTest, ModeAndPreferencesAreThoseOfThePress) {
    settings.setRewriteMode(RewriteMode::casual);
    settings.setWritingPreferences(QStringLiteral("Use contractions"), RewriteMode::casual);
    replacer->holdCaptures = true;
    coordinator->submitRewriteSelection();
    ASSERT_TRUE(test::pumpUntil([&] { return replacer->heldCaptureCount() == 1; }));

    settings.setRewriteMode(RewriteMode::makeConcise);
    settings.setWritingPreferences(QStringLiteral("Later"), RewriteMode::casual);
    replacer->finishCapture(0, ScriptedSelectionReplacer::selection(QStringLiteral("text")));
    finish();

    ASSERT_EQ(engine->calls.size(), 1u);
    EXPECT_EQ(engine->calls[0].mode, RewriteMode::casual);
    EXPECT_EQ(engine->calls[0].preferences, QStringLiteral("Use contractions"));
}

TEST_F(RewriteCoordinatorTest, TrivialClarityFixIsLoggedAsDeterministic) {
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("Hello  world")));
    engine->answers.push_back(QStringLiteral("Hello world"));
    pressAndFinish();
    EXPECT_EQ(lines()[1], line("stage=deterministicRewrite app=org.example.Editor length=12 elapsed_ms=0"));

    // Any other answer came from the model, and so does the same answer in another mode.
    clock.advance(std::chrono::seconds(5));
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("Hello  world"), 40));
    engine->answers.push_back(QStringLiteral("Hello, world!"));
    pressAndFinish();
    EXPECT_EQ(lines()[5], line("stage=modelRewrite app=org.example.Editor length=12 elapsed_ms=0"));

    settings.setRewriteMode(RewriteMode::casual);
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("Hello  world"), 80));
    engine->answers.push_back(QStringLiteral("Hello world"));
    pressAndFinish();
    EXPECT_EQ(lines()[9], line("stage=modelRewrite app=org.example.Editor length=12 elapsed_ms=0"));
}

TEST_F(RewriteCoordinatorTest, UnchangedResultReplacesNothing) {
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("Fine as is.")));
    engine->answers.push_back(QStringLiteral("Fine as is."));
    pressAndFinish();

    EXPECT_TRUE(replacer->replacements.empty());
    EXPECT_EQ(lines(), (std::vector<QString>{
                           line("stage=capture app=org.example.Editor length=11 elapsed_ms=0"),
                           line("stage=modelRewrite app=org.example.Editor length=11 elapsed_ms=0"),
                           line("stage=completed app=org.example.Editor length=11 elapsed_ms=0"),
                       }));
    EXPECT_TRUE(reporter->messages.empty());
}

TEST_F(RewriteCoordinatorTest, CapturesFinishingOutOfOrderAreEnqueuedInPressOrder) {
    replacer->holdCaptures = true;
    coordinator->submitRewriteSelection();
    coordinator->submitRewriteSelection();
    coordinator->submitRewriteSelection();
    ASSERT_TRUE(test::pumpUntil([&] { return replacer->heldCaptureCount() == 3; }));

    replacer->finishCapture(2, ScriptedSelectionReplacer::selection(QStringLiteral("third")));
    replacer->finishCapture(1, errorOf(TextReplacementError(ReplacementKind::noSelectedText)));
    test::pumpFor(50);
    // Later presses wait for the first: nothing reached the queue, and the failure is not yet logged.
    EXPECT_TRUE(engine->calls.empty());
    EXPECT_EQ(lines(),
              std::vector<QString>{line("stage=capture app=org.example.Editor length=5 elapsed_ms=0")});
    EXPECT_TRUE(reporter->messages.empty());
    EXPECT_EQ(coordinator->outstandingShortcutRequests(), 3);

    replacer->finishCapture(0, ScriptedSelectionReplacer::selection(QStringLiteral("first")));
    finish();

    ASSERT_EQ(engine->calls.size(), 2u);
    EXPECT_EQ(engine->calls[0].text, QStringLiteral("first"));
    EXPECT_EQ(engine->calls[1].text, QStringLiteral("third"));
    EXPECT_EQ(lines()[2], line("stage=capture app=unknown length=0 elapsed_ms=0 error=no_selection"));
    EXPECT_EQ(reporter->messages,
              std::vector<QString>{QStringLiteral("Select text first, then press the Parlune shortcut.")});
}

TEST_F(RewriteCoordinatorTest, FourthOutstandingPressIsRefusedWithoutCapturing) {
    replacer->holdCaptures = true;
    for (int i = 0; i < 3; ++i) {
        coordinator->submitRewriteSelection();
    }
    ASSERT_TRUE(test::pumpUntil([&] { return replacer->heldCaptureCount() == 3; }));

    coordinator->submitRewriteSelection();
    test::pumpFor(30);
    EXPECT_EQ(replacer->captureCalls, 3);
    EXPECT_EQ(lines(), std::vector<QString>{line("stage=queued app=unknown length=0 error=queue_full")});
    EXPECT_EQ(reporter->messages,
              std::vector<QString>{QStringLiteral("Parlune is busy. Try again in a moment.")});

    // Jobs count until they finish: with one capture done and its rewrite running, still full.
    engine->holdRewrites = true;
    replacer->finishCapture(0, ScriptedSelectionReplacer::selection(QStringLiteral("one")));
    ASSERT_TRUE(test::pumpUntil([&] { return engine->heldCount() == 1; }));
    coordinator->submitRewriteSelection();
    test::pumpFor(30);
    EXPECT_EQ(replacer->captureCalls, 3);

    engine->releaseOne();
    ASSERT_TRUE(test::pumpUntil([&] { return coordinator->outstandingShortcutRequests() == 2; }));
    coordinator->submitRewriteSelection();
    ASSERT_TRUE(test::pumpUntil([&] { return replacer->captureCalls == 4; }));
    EXPECT_EQ(reporter->messages.size(), 2u);

    engine->holdRewrites = false;
    replacer->finishCapture(1, ScriptedSelectionReplacer::selection(QStringLiteral("two")));
    replacer->finishCapture(2, ScriptedSelectionReplacer::selection(QStringLiteral("three")));
    replacer->finishCapture(3, ScriptedSelectionReplacer::selection(QStringLiteral("four")));
    finish();
    EXPECT_EQ(engine->calls.size(), 4u);
}

TEST_F(RewriteCoordinatorTest, RepeatedPressOnTheSameSelectionIsDeduplicatedSilently) {
    engine->holdRewrites = true;
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("same text")));
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("same text")));
    coordinator->submitRewriteSelection();
    clock.advance(std::chrono::milliseconds(400));
    coordinator->submitRewriteSelection();
    ASSERT_TRUE(test::pumpUntil(
        [&] { return coordinator->outstandingShortcutRequests() == 1 && engine->heldCount() == 1; }));

    EXPECT_EQ(lines().back(),
              line("stage=queued app=org.example.Editor length=9 elapsed_ms=0 error=deduplicated"));
    engine->releaseOne();
    finish();
    EXPECT_EQ(engine->calls.size(), 1u);
    EXPECT_TRUE(reporter->messages.empty());
}

TEST_F(RewriteCoordinatorTest, StaleSelectionIsLoggedAndNotShown) {
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("moved on")));
    replacer->validationErrors.push_back(errorOf(TextReplacementError(ReplacementKind::selectionChanged)));
    clock.advance(std::chrono::milliseconds(1));
    pressAndFinish();

    EXPECT_TRUE(engine->calls.empty());
    EXPECT_EQ(lines().back(),
              line("stage=staleTarget app=org.example.Editor length=8 elapsed_ms=0 error=stale_selection"));
    EXPECT_TRUE(reporter->messages.empty());
}

// Every failure is logged under the stage it ended and a category of its own; only a moved
// selection and a cancellation are kept from the user.
TEST_F(RewriteCoordinatorTest, FailuresAreLoggedUnderTheirStageWithACategoryOfTheirOwn) {
    QSet<QString> categories;
    const auto expectLogged = [&](const QString& prefix, const std::exception_ptr& error, bool shown) {
        const QString last = lines().back();
        EXPECT_TRUE(last.startsWith(prefix + QStringLiteral(" error="))) << last.toStdString();
        categories.insert(last.section(QStringLiteral(" error="), 1));
        EXPECT_EQ(reporter->messages, shown ? std::vector<QString>{UserFacingErrorMessage::message(error)}
                                            : std::vector<QString>{})
            << last.toStdString();
        reporter->messages.clear();
    };
    const QString captureStage = QStringLiteral("stage=capture app=unknown length=0 elapsed_ms=0");
    const QString modelStage =
        QStringLiteral("stage=modelRewrite app=org.example.Editor length=5 elapsed_ms=0");
    const int replacementKinds = static_cast<int>(ReplacementKind::replacementNotConfirmed) + 1;
    const int engineKinds = static_cast<int>(EngineKind::emptyRewrite) + 1;
    for (int i = 0; i < replacementKinds; ++i) {
        const auto kind = static_cast<ReplacementKind>(i);
        const std::exception_ptr error = errorOf(TextReplacementError(kind));
        replacer->captures.push_back(error);
        pressAndFinish();
        expectLogged(captureStage, error, kind != ReplacementKind::selectionChanged);
    }
    int position = 0;
    const auto failModel = [&](std::exception_ptr error, bool shown) {
        replacer->captures.push_back(
            ScriptedSelectionReplacer::selection(QStringLiteral("draft"), position++));
        engine->answers.push_back(error);
        pressAndFinish();
        expectLogged(modelStage, error, shown);
    };
    for (int i = 0; i < engineKinds; ++i) {
        failModel(errorOf(LocalRewriteEngineError(static_cast<EngineKind>(i))), true);
    }
    EXPECT_EQ(categories.size(), replacementKinds + engineKinds);
    EXPECT_FALSE(categories.contains(QStringLiteral("unknown")));

    failModel(errorOf(std::runtime_error("disk on fire")), true);
    EXPECT_EQ(lines().back(), modelStage + QStringLiteral(" error=unknown"));
    failModel(errorOf(CancellationError{}), false);
    EXPECT_EQ(lines().back(), modelStage + QStringLiteral(" error=cancelled"));
    const std::exception_ptr cancelled = errorOf(CancellationError{});
    replacer->captures.push_back(cancelled);
    pressAndFinish();
    expectLogged(captureStage, cancelled, false);
    EXPECT_EQ(lines().back(), captureStage + QStringLiteral(" error=cancelled"));
    EXPECT_TRUE(replacer->replacements.empty());
}

TEST_F(RewriteCoordinatorTest, ReplacementAndValidationFailuresUseTheReplacementStage) {
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("abc"), 1));
    replacer->validationErrors.push_back(errorOf(TextReplacementError(ReplacementKind::unsupportedTarget)));
    pressAndFinish();
    EXPECT_EQ(
        lines().back(),
        line("stage=replacement app=org.example.Editor length=3 elapsed_ms=0 error=unsupported_target"));
    EXPECT_TRUE(engine->calls.empty());

    // A validation failure that is not a selection error counts as a generation failure.
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("abc"), 2));
    replacer->validationErrors.push_back(errorOf(CancellationError{}));
    pressAndFinish();
    EXPECT_EQ(lines().back(),
              line("stage=modelRewrite app=org.example.Editor length=3 elapsed_ms=0 error=cancelled"));

    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("abc"), 3));
    replacer->replaceError = errorOf(TextReplacementError(ReplacementKind::unableToCreateKeyboardEvent));
    pressAndFinish();
    EXPECT_EQ(
        lines().back(),
        line("stage=replacement app=org.example.Editor length=3 elapsed_ms=0 error=keyboard_event_failed"));
    EXPECT_EQ(reporter->messages.size(), 2u);
}

TEST_F(RewriteCoordinatorTest, AwaitableRewriteRunsThePipelineOutsideThePressCount) {
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("sample")));
    test::runTask(coordinator->rewriteSelection());
    EXPECT_EQ(replacer->replacements.size(), 1u);
    EXPECT_EQ(lines().back(), line("stage=completed app=org.example.Editor length=6 elapsed_ms=0"));
    EXPECT_EQ(coordinator->outstandingShortcutRequests(), 0);

    // The same selection again at the same moment is a repeat.
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("sample")));
    test::runTask(coordinator->rewriteSelection());
    EXPECT_EQ(lines().back(),
              line("stage=queued app=org.example.Editor length=6 elapsed_ms=0 error=deduplicated"));
    EXPECT_EQ(engine->calls.size(), 1u);

    replacer->captures.push_back(
        errorOf(TextReplacementError(ReplacementKind::accessibilityPermissionMissing)));
    test::runTask(coordinator->rewriteSelection());
    EXPECT_EQ(lines().back(),
              line("stage=capture app=unknown length=0 elapsed_ms=0 error=accessibility_missing"));
    EXPECT_EQ(reporter->messages, std::vector<QString>{QStringLiteral(
                                      "Enable Accessibility so Parlune can copy and paste selected text.")});
}

TEST_F(RewriteCoordinatorTest, AwaitableRewriteReportsAFullQueue) {
    auto queue = std::make_unique<RewriteJobQueue>(1, 1.0, [this] { return clock.uptimeSeconds(); });
    coordinator = std::make_unique<RewriteCoordinator>(settings, engine, replacer, logger, clock, reporter,
                                                       std::move(queue));
    engine->holdRewrites = true;
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("first")));
    replacer->captures.push_back(ScriptedSelectionReplacer::selection(QStringLiteral("second")));
    coordinator->submitRewriteSelection();
    ASSERT_TRUE(test::pumpUntil([&] { return engine->heldCount() == 1; }));

    test::runTask(coordinator->rewriteSelection());
    EXPECT_EQ(lines().back(),
              line("stage=queued app=org.example.Editor length=6 elapsed_ms=0 error=queue_full"));
    EXPECT_EQ(reporter->messages,
              std::vector<QString>{QStringLiteral("Parlune is busy. Try again in a moment.")});
    engine->releaseOne();
    finish();
}

TEST_F(RewriteCoordinatorTest, PrepareLogsItsOutcomeAndNeverThrows) {
    test::runTask(coordinator->prepare());
    EXPECT_EQ(lines().back(), line("stage=prepare outcome=ready"));
    engine->prepareError = errorOf(LocalRewriteEngineError(EngineKind::modelNotReady));
    EXPECT_NO_THROW(test::runTask(coordinator->prepare()));
    EXPECT_EQ(lines().back(), line("stage=prepare outcome=failed error=model_not_ready"));
    EXPECT_EQ(engine->prepareCalls, 2);
    EXPECT_TRUE(reporter->messages.empty());

    engine->availabilityValue = LocalModelAvailability::unsupportedLocale;
    EXPECT_EQ(coordinator->modelAvailability(), LocalModelAvailability::unsupportedLocale);
}

TEST_F(RewriteCoordinatorTest, GoneReporterAndGoneCoordinatorEndQuietly) {
    reporter.reset();
    replacer->captures.push_back(errorOf(TextReplacementError(ReplacementKind::noSelectedText)));
    pressAndFinish();
    EXPECT_EQ(lines().back(), line("stage=capture app=unknown length=0 elapsed_ms=0 error=no_selection"));

    replacer->holdCaptures = true;
    coordinator->submitRewriteSelection();
    ASSERT_TRUE(test::pumpUntil([&] { return replacer->heldCaptureCount() == 1; }));
    const std::size_t lineCount = logger.entries().size();
    coordinator.reset();
    test::pumpFor(30);
    EXPECT_EQ(logger.entries().size(), lineCount);
    EXPECT_TRUE(engine->calls.empty());
}

} // namespace
} // namespace parlune
