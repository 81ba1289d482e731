#pragma once

#include "core/async/Clock.h"
#include "core/async/TaskHandle.h"
#include "core/async/WeakRef.h"
#include "core/engine/LocalModelAvailability.h"
#include "core/engine/LocalRewriteEngine.h"
#include "core/pipeline/RewriteJobQueue.h"
#include "core/pipeline/RewriteStatusReporting.h"
#include "core/selection/SelectionReplacing.h"

#include <QCoro/QCoroTask>
#include <QString>

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <variant>
#include <vector>

namespace parlune {

class DiagnosticsLogger;
class SettingsStore;

// Carries a rewrite from the shortcut press to the replaced text: captures the selection at once,
// hands the presses to the job queue in press order, rewrites, checks the target is unchanged,
// replaces, logs every stage with its time and tells the user when something went wrong. Never
// throws to its caller. Main thread only.
class RewriteCoordinator {
public:
    // Presses accepted and not yet finished (capturing, queued or running) before a press is refused.
    static constexpr int maximumOutstandingShortcutRequests = 3;

    // The settings store, the logger and the clock must outlive the coordinator. The reporter is
    // held weakly: once it is gone, messages are dropped.
    RewriteCoordinator(SettingsStore& settings, std::shared_ptr<LocalRewriteEngine> engine,
                       std::shared_ptr<SelectionReplacing> selectionReplacer, DiagnosticsLogger& diagnostics,
                       const Clock& clock, std::weak_ptr<RewriteStatusReporting> reporter = {},
                       std::unique_ptr<RewriteJobQueue> jobQueue = nullptr);
    ~RewriteCoordinator();
    RewriteCoordinator(const RewriteCoordinator&) = delete;
    RewriteCoordinator& operator=(const RewriteCoordinator&) = delete;

    void setReporter(std::weak_ptr<RewriteStatusReporting> reporter) { reporter_ = std::move(reporter); }

    LocalModelAvailability modelAvailability() const { return engine_->availability(); }

    // Warms the model up and logs the outcome as a "prepare" event.
    QCoro::Task<void> prepare(std::stop_token token = {});

    // The shortcut path: returns at once; the rewrite runs in the background, in press order.
    void submitRewriteSelection();

    // The same pipeline for a caller that awaits its end. Ignores the press limit and ordering.
    QCoro::Task<void> rewriteSelection(std::stop_token token = {});

    int outstandingShortcutRequests() const { return outstandingShortcutRequests_; }

    // The sentence shown when too many rewrites are outstanding.
    static QString busyMessage();
    // The short code written after "error=" for any error.
    static QString errorCategory(const std::exception_ptr& error);
    // Whether the user is told: never for a cancellation or a selection that changed meanwhile.
    static bool shouldReport(const std::exception_ptr& error);

private:
    // One press whose capture has finished, waiting for its turn to be enqueued.
    struct ShortcutCapture {
        std::variant<CapturedSelection, std::exception_ptr> result;
        RewriteMode mode;
        QString preferences;
        WallTime startedAt;
        double submittedAtUptime;
    };

    static QCoro::Task<void> captureShortcutPress(WeakRef<RewriteCoordinator> weakSelf,
                                                  std::shared_ptr<SelectionReplacing> replacer,
                                                  std::uint64_t sequence, ShortcutCapture press,
                                                  std::stop_token token);
    void enqueueCompletedShortcutCapturesInOrder();
    RewriteJobQueue::Operation jobOperation();
    static QCoro::Task<void> executeJob(WeakRef<RewriteCoordinator> weakSelf,
                                        std::shared_ptr<LocalRewriteEngine> engine,
                                        std::shared_ptr<SelectionReplacing> replacer, RewriteJob job,
                                        std::stop_token token);
    static QCoro::Task<void> prepareEngine(WeakRef<RewriteCoordinator> weakSelf,
                                           std::shared_ptr<LocalRewriteEngine> engine, std::stop_token token);
    static QCoro::Task<void> runRewriteSelection(WeakRef<RewriteCoordinator> weakSelf,
                                                 std::shared_ptr<SelectionReplacing> replacer,
                                                 std::stop_token token);

    void failJob(const QString& stage, const RewriteJob& job, const std::exception_ptr& error);
    // One rewrite line; without a start time the line has no milliseconds.
    void log(const QString& stage, const CapturedSelection* selection, std::optional<WallTime> startedAt,
             const std::optional<QString>& category = std::nullopt);
    void report(const QString& message);
    void finishShortcutRequest();

    static QString failureStage(const std::exception_ptr& error);

    SettingsStore& settings_;
    std::shared_ptr<LocalRewriteEngine> engine_;
    std::shared_ptr<SelectionReplacing> selectionReplacer_;
    DiagnosticsLogger& diagnostics_;
    const Clock& clock_;
    std::unique_ptr<RewriteJobQueue> jobQueue_;
    std::weak_ptr<RewriteStatusReporting> reporter_;

    int outstandingShortcutRequests_ = 0;
    std::uint64_t nextShortcutSequence_ = 0;
    std::uint64_t nextShortcutSequenceToEnqueue_ = 0;
    std::map<std::uint64_t, ShortcutCapture> completedShortcutCaptures_;

    std::vector<TaskHandle> captureTasks_;
    LifetimeToken lifetime_;
};

} // namespace parlune
