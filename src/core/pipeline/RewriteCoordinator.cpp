#include "core/pipeline/RewriteCoordinator.h"

#include "core/async/CancellationError.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/engine/DeterministicTextNormalizer.h"
#include "core/engine/GraphemeCount.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/selection/TextReplacementError.h"
#include "core/settings/SettingsStore.h"

#include <QUuid>

#include <climits>
#include <cstdio>
#include <cstdlib>

namespace parlune {

namespace {

// Stage names used inside the pipeline; the log shows them as RewriteDiagnosticStage values.
const QString captureStage = QStringLiteral("capture");
const QString queueStage = QStringLiteral("queue");
const QString deterministicStage = QStringLiteral("deterministic");
const QString modelStage = QStringLiteral("model");
const QString generationStage = QStringLiteral("generation");
const QString staleStage = QStringLiteral("stale");
const QString replacementStage = QStringLiteral("replacement");
const QString completedStage = QStringLiteral("completed");

const QString queueFullCategory = QStringLiteral("queue_full");
const QString deduplicatedCategory = QStringLiteral("deduplicated");

RewriteDiagnosticStage diagnosticStage(const QString& name) {
    if (name == captureStage) {
        return RewriteDiagnosticStage::capture;
    }
    if (name == queueStage) {
        return RewriteDiagnosticStage::queued;
    }
    if (name == deterministicStage) {
        return RewriteDiagnosticStage::deterministicRewrite;
    }
    if (name == modelStage || name == generationStage) {
        return RewriteDiagnosticStage::modelRewrite;
    }
    if (name == staleStage) {
        return RewriteDiagnosticStage::staleTarget;
    }
    if (name == replacementStage) {
        return RewriteDiagnosticStage::replacement;
    }
    if (name == completedStage) {
        return RewriteDiagnosticStage::completed;
    }
    return RewriteDiagnosticStage::failed;
}

bool isSelectionChanged(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const TextReplacementError& replacementError) {
        return replacementError.kind() == TextReplacementError::Kind::selectionChanged;
    } catch (...) {
        return false;
    }
}

QString category(TextReplacementError::Kind kind) {
    using Kind = TextReplacementError::Kind;
    switch (kind) {
    case Kind::accessibilityPermissionMissing:
        return QStringLiteral("accessibility_missing");
    case Kind::noSelectedText:
        return QStringLiteral("no_selection");
    case Kind::unableToReadFocusedElement:
        return QStringLiteral("focused_element_unreadable");
    case Kind::unableToCreateKeyboardEvent:
        return QStringLiteral("keyboard_event_failed");
    case Kind::selectionChanged:
        return QStringLiteral("stale_selection");
    case Kind::unsupportedTarget:
        return QStringLiteral("unsupported_target");
    case Kind::replacementNotConfirmed:
        return QStringLiteral("replacement_not_confirmed");
    }
    return QStringLiteral("unknown");
}

QString category(LocalRewriteEngineError::Kind kind) {
    using Kind = LocalRewriteEngineError::Kind;
    switch (kind) {
    case Kind::deviceNotEligible:
        return QStringLiteral("device_not_eligible");
    case Kind::appleIntelligenceNotEnabled:
        return QStringLiteral("local_model_disabled");
    case Kind::modelNotReady:
        return QStringLiteral("model_not_ready");
    case Kind::unsupportedLocale:
        return QStringLiteral("unsupported_locale");
    case Kind::selectionTooLong:
        return QStringLiteral("selection_too_long");
    case Kind::preferencesTooLong:
        return QStringLiteral("preferences_too_long");
    case Kind::safetyRestricted:
        return QStringLiteral("safety_restricted");
    case Kind::modelBusy:
        return QStringLiteral("model_busy");
    case Kind::generationFailed:
        return QStringLiteral("generation_failed");
    case Kind::emptyRewrite:
        return QStringLiteral("empty_rewrite");
    }
    return QStringLiteral("unknown");
}

} // namespace

RewriteCoordinator::RewriteCoordinator(SettingsStore& settings, std::shared_ptr<LocalRewriteEngine> engine,
                                       std::shared_ptr<SelectionReplacing> selectionReplacer,
                                       DiagnosticsLogger& diagnostics, const Clock& clock,
                                       std::weak_ptr<RewriteStatusReporting> reporter,
                                       std::unique_ptr<RewriteJobQueue> jobQueue)
    : settings_(settings), engine_(std::move(engine)), selectionReplacer_(std::move(selectionReplacer)),
      diagnostics_(diagnostics), clock_(clock),
      jobQueue_(jobQueue ? std::move(jobQueue)
                         : std::make_unique<RewriteJobQueue>(RewriteJobQueue::defaultMaximumOutstandingJobs,
                                                             RewriteJobQueue::defaultDeduplicationInterval,
                                                             [&clock] { return clock.uptimeSeconds(); })),
      reporter_(std::move(reporter)) {}

RewriteCoordinator::~RewriteCoordinator() {
    for (TaskHandle& task : captureTasks_) {
        task.cancel();
    }
}

QString RewriteCoordinator::busyMessage() {
    return QStringLiteral("Parlune is busy. Try again in a moment.");
}

QCoro::Task<void> RewriteCoordinator::prepare(std::stop_token token) {
    return prepareEngine(lifetime_.weak(this), engine_, std::move(token));
}

QCoro::Task<void> RewriteCoordinator::prepareEngine(WeakRef<RewriteCoordinator> weakSelf,
                                                    std::shared_ptr<LocalRewriteEngine> engine,
                                                    std::stop_token token) {
    std::exception_ptr error;
    try {
        co_await engine->prepare(token);
    } catch (...) {
        error = std::current_exception();
    }
    RewriteCoordinator* self = weakSelf.lock();
    if (!self) {
        co_return;
    }
    const QString stage = QStringLiteral("prepare");
    if (error) {
        self->diagnostics_.logEvent(stage, QStringLiteral("failed"), errorCategory(error));
    } else {
        self->diagnostics_.logEvent(stage, QStringLiteral("ready"));
    }
}

void RewriteCoordinator::submitRewriteSelection() {
    if (outstandingShortcutRequests_ > maximumOutstandingShortcutRequests - 1) {
        diagnostics_.logRewrite(RewriteDiagnosticStage::queued, std::nullopt, 0, std::nullopt,
                                queueFullCategory);
        report(busyMessage());
        return;
    }

    const std::uint64_t sequence = nextShortcutSequence_++;
    // The mode and preferences are those of the press; later changes of the settings do not apply.
    const RewriteMode mode = settings_.rewriteMode();
    ShortcutCapture press{
        .result = std::exception_ptr(),
        .mode = mode,
        .preferences = settings_.writingPreferences(mode),
        .startedAt = clock_.now(),
        .submittedAtUptime = clock_.uptimeSeconds(),
    };
    if (outstandingShortcutRequests_ == INT_MAX) {
        std::fputs("parlune: outstanding shortcut request count overflowed\n", stderr);
        std::abort();
    }
    ++outstandingShortcutRequests_;

    std::erase_if(captureTasks_, [](const TaskHandle& task) { return task.isFinished(); });
    captureTasks_.push_back(spawnTask([weakSelf = lifetime_.weak(this), replacer = selectionReplacer_,
                                       sequence, press = std::move(press)](std::stop_token token) {
        return captureShortcutPress(weakSelf, replacer, sequence, press, std::move(token));
    }));
}

QCoro::Task<void> RewriteCoordinator::captureShortcutPress(WeakRef<RewriteCoordinator> weakSelf,
                                                           std::shared_ptr<SelectionReplacing> replacer,
                                                           std::uint64_t sequence, ShortcutCapture press,
                                                           std::stop_token token) {
    std::optional<CapturedSelection> selection;
    std::exception_ptr error;
    try {
        selection.emplace(co_await replacer->capture(token));
    } catch (...) {
        error = std::current_exception();
    }
    RewriteCoordinator* self = weakSelf.lock();
    if (!self) {
        co_return;
    }
    if (selection) {
        self->log(captureStage, &*selection, press.startedAt);
        press.result = std::move(*selection);
    } else {
        // Logged at its turn, so that failures appear in press order too.
        press.result = error;
    }
    self->completedShortcutCaptures_.emplace(sequence, std::move(press));
    self->enqueueCompletedShortcutCapturesInOrder();
}

void RewriteCoordinator::enqueueCompletedShortcutCapturesInOrder() {
    while (true) {
        const auto found = completedShortcutCaptures_.find(nextShortcutSequenceToEnqueue_);
        if (found == completedShortcutCaptures_.end()) {
            return; // an earlier press is still capturing
        }
        ShortcutCapture capture = std::move(found->second);
        completedShortcutCaptures_.erase(found);
        ++nextShortcutSequenceToEnqueue_;

        if (const std::exception_ptr* error = std::get_if<std::exception_ptr>(&capture.result)) {
            log(captureStage, nullptr, capture.startedAt, errorCategory(*error));
            if (shouldReport(*error)) {
                report(UserFacingErrorMessage::message(*error));
            }
            finishShortcutRequest();
            continue;
        }

        const CapturedSelection& selection = std::get<CapturedSelection>(capture.result);
        RewriteJob job{
            .id = QUuid::createUuid(),
            .selection = selection,
            .mode = capture.mode,
            .preferences = capture.preferences,
            .submittedAt = capture.startedAt,
        };
        const RewriteJobEnqueueResult result = jobQueue_->enqueue(
            std::move(job), capture.submittedAtUptime, jobOperation(), [weakSelf = lifetime_.weak(this)] {
                if (RewriteCoordinator* self = weakSelf.lock()) {
                    self->finishShortcutRequest();
                }
            });
        switch (result) {
        case RewriteJobEnqueueResult::accepted:
            break; // the request finishes with the job's completion
        case RewriteJobEnqueueResult::deduplicated:
            // A double press or key repeat: expected, so the user is not told.
            log(queueStage, &selection, capture.startedAt, deduplicatedCategory);
            finishShortcutRequest();
            break;
        case RewriteJobEnqueueResult::queueFull:
            log(queueStage, &selection, capture.startedAt, queueFullCategory);
            report(busyMessage());
            finishShortcutRequest();
            break;
        }
    }
}

RewriteJobQueue::Operation RewriteCoordinator::jobOperation() {
    return [weakSelf = lifetime_.weak(this), engine = engine_,
            replacer = selectionReplacer_](RewriteJob job, std::stop_token token) {
        return executeJob(weakSelf, engine, replacer, std::move(job), std::move(token));
    };
}

QCoro::Task<void> RewriteCoordinator::executeJob(WeakRef<RewriteCoordinator> weakSelf,
                                                 std::shared_ptr<LocalRewriteEngine> engine,
                                                 std::shared_ptr<SelectionReplacing> replacer, RewriteJob job,
                                                 std::stop_token token) {
    if (!weakSelf.lock()) {
        co_return;
    }

    std::exception_ptr error;
    try {
        co_await replacer->validate(job.selection, token);
    } catch (...) {
        error = std::current_exception();
    }
    RewriteCoordinator* self = weakSelf.lock();
    if (!self) {
        co_return;
    }
    if (error) {
        self->failJob(isSelectionChanged(error) ? staleStage : failureStage(error), job, error);
        co_return;
    }

    const WallTime modelStartedAt = self->clock_.now();
    QString result;
    try {
        result = co_await engine->rewrite(job.selection.text(), job.mode, job.preferences, token);
    } catch (...) {
        error = std::current_exception();
    }
    self = weakSelf.lock();
    if (!self) {
        co_return;
    }
    if (error) {
        self->failJob(failureStage(error), job, error);
        co_return;
    }

    // The engine answers trivial "Improve clarity" fixes itself; name the stage after whoever did.
    const bool deterministic =
        job.mode == RewriteMode::improveClarity &&
        DeterministicTextNormalizer::rewriteIfTriviallySafe(job.selection.text()) == result;
    self->log(deterministic ? deterministicStage : modelStage, &job.selection, modelStartedAt);

    if (result == job.selection.text()) {
        self->log(completedStage, &job.selection, job.submittedAt);
        co_return;
    }

    const WallTime replacementStartedAt = self->clock_.now();
    try {
        co_await replacer->replace(result, job.selection, token);
    } catch (...) {
        error = std::current_exception();
    }
    self = weakSelf.lock();
    if (!self) {
        co_return;
    }
    if (error) {
        self->failJob(failureStage(error), job, error);
        co_return;
    }
    self->log(replacementStage, &job.selection, replacementStartedAt);
    self->log(completedStage, &job.selection, job.submittedAt);
}

QCoro::Task<void> RewriteCoordinator::rewriteSelection(std::stop_token token) {
    return runRewriteSelection(lifetime_.weak(this), selectionReplacer_, std::move(token));
}

QCoro::Task<void> RewriteCoordinator::runRewriteSelection(WeakRef<RewriteCoordinator> weakSelf,
                                                          std::shared_ptr<SelectionReplacing> replacer,
                                                          std::stop_token token) {
    RewriteCoordinator* self = weakSelf.lock();
    if (!self) {
        co_return;
    }
    const WallTime startedAt = self->clock_.now();

    std::optional<CapturedSelection> selection;
    std::exception_ptr error;
    try {
        selection.emplace(co_await replacer->capture(token));
    } catch (...) {
        error = std::current_exception();
    }
    self = weakSelf.lock();
    if (!self) {
        co_return;
    }
    if (error) {
        self->log(captureStage, nullptr, startedAt, errorCategory(error));
        if (shouldReport(error)) {
            self->report(UserFacingErrorMessage::message(error));
        }
        co_return;
    }
    self->log(captureStage, &*selection, startedAt);

    const RewriteMode mode = self->settings_.rewriteMode();
    RewriteJob job{
        .id = QUuid::createUuid(),
        .selection = *selection,
        .mode = mode,
        .preferences = self->settings_.writingPreferences(mode),
        .submittedAt = startedAt,
    };
    const RewriteJobSubmission submission =
        co_await self->jobQueue_->submit(std::move(job), std::nullopt, self->jobOperation());
    self = weakSelf.lock();
    if (!self) {
        co_return;
    }
    switch (submission) {
    case RewriteJobSubmission::completed:
        break;
    case RewriteJobSubmission::deduplicated:
        self->log(queueStage, &*selection, startedAt, deduplicatedCategory);
        break;
    case RewriteJobSubmission::queueFull:
        self->log(queueStage, &*selection, startedAt, queueFullCategory);
        self->report(busyMessage());
        break;
    }
}

void RewriteCoordinator::failJob(const QString& stage, const RewriteJob& job,
                                 const std::exception_ptr& error) {
    log(stage, &job.selection, job.submittedAt, errorCategory(error));
    if (shouldReport(error)) {
        report(UserFacingErrorMessage::message(error));
    }
}

void RewriteCoordinator::log(const QString& stage, const CapturedSelection* selection,
                             std::optional<WallTime> startedAt, const std::optional<QString>& category) {
    std::optional<qint64> elapsed;
    if (startedAt) {
        const WallTime now = clock_.now();
        std::int64_t ticks = 0;
        // Times a lifetime apart mean a corrupt clock; a wrapped difference would log nonsense.
        if (__builtin_sub_overflow(now.time_since_epoch().count(), startedAt->time_since_epoch().count(),
                                   &ticks)) {
            std::fputs("parlune: elapsed time does not fit a 64-bit integer\n", stderr);
            std::abort();
        }
        elapsed = elapsedMilliseconds(*startedAt, now);
    }
    // Only the length of the selection is logged, never its text.
    diagnostics_.logRewrite(diagnosticStage(stage),
                            selection ? selection->applicationBundleIdentifier() : std::optional<QString>(),
                            selection ? graphemeClusterCount(selection->text()) : 0, elapsed, category);
}

void RewriteCoordinator::report(const QString& message) {
    if (std::shared_ptr<RewriteStatusReporting> reporter = reporter_.lock()) {
        reporter->showStatus(message);
    }
}

void RewriteCoordinator::finishShortcutRequest() {
    if (outstandingShortcutRequests_ > 0) {
        --outstandingShortcutRequests_;
    }
}

QString RewriteCoordinator::errorCategory(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const CancellationError&) {
        return QStringLiteral("cancelled");
    } catch (const TextReplacementError& replacementError) {
        return category(replacementError.kind());
    } catch (const LocalRewriteEngineError& engineError) {
        return category(engineError.kind());
    } catch (...) {
        return QStringLiteral("unknown");
    }
}

bool RewriteCoordinator::shouldReport(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const TextReplacementError& replacementError) {
        return replacementError.kind() != TextReplacementError::Kind::selectionChanged;
    } catch (const CancellationError&) {
        return false;
    } catch (...) {
        return true;
    }
}

QString RewriteCoordinator::failureStage(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const TextReplacementError&) {
        return replacementStage;
    } catch (...) {
        return generationStage;
    }
}

} // namespace parlune
