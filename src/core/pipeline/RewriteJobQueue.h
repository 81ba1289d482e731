#pragma once

#include "core/async/TaskHandle.h"
#include "core/async/WeakRef.h"
#include "core/pipeline/RewriteJob.h"

#include <QCoro/QCoroTask>

#include <deque>
#include <functional>
#include <optional>
#include <stop_token>
#include <unordered_map>
#include <vector>

namespace parlune {

// Runs rewrite jobs one at a time in acceptance order, bounds how many may be outstanding and
// drops a repeat of the same selection within a short interval (double press, key repeat).
// Main thread only.
class RewriteJobQueue {
public:
    // The job's work; it reports its own failures, the queue never sees an error.
    using Operation = std::function<QCoro::Task<void>(RewriteJob job, std::stop_token token)>;
    using Completion = std::function<void()>;
    using MonotonicNow = std::function<double()>;

    static constexpr int defaultMaximumOutstandingJobs = 3;
    static constexpr double defaultDeduplicationInterval = 1.0;

    explicit RewriteJobQueue(int maximumOutstandingJobs = defaultMaximumOutstandingJobs,
                             double deduplicationInterval = defaultDeduplicationInterval,
                             MonotonicNow monotonicNow = {});
    ~RewriteJobQueue();
    RewriteJobQueue(const RewriteJobQueue&) = delete;
    RewriteJobQueue& operator=(const RewriteJobQueue&) = delete;

    // Answers at once, never suspends. `deduplicationTimestamp` is in the clock of `monotonicNow`;
    // without one the current time is used.
    RewriteJobEnqueueResult enqueue(RewriteJob job, std::optional<double> deduplicationTimestamp,
                                    Operation operation, Completion completion);

    // Enqueues and waits until the job's completion has run, or answers at once when dropped.
    QCoro::Task<RewriteJobSubmission> submit(RewriteJob job, std::optional<double> deduplicationTimestamp,
                                             Operation operation);

    int maximumOutstandingJobs() const { return maximumOutstandingJobs_; }
    double deduplicationInterval() const { return deduplicationInterval_; }
    // Pending jobs plus the running one, which counts until its completion has been called.
    int outstandingJobCount() const;
    std::size_t recentSubmissionCount() const { return recentSubmissions_.size(); }

private:
    struct PendingJob {
        RewriteJob job;
        Operation operation;
        Completion completion;
    };

    void purgeRecentSubmissions(double timestamp);
    void scheduleCleanup();
    void beginDrainingIfNeeded();
    static QCoro::Task<void> drain(WeakRef<RewriteJobQueue> weakQueue, std::stop_token token);

    const int maximumOutstandingJobs_;
    const double deduplicationInterval_;
    const MonotonicNow monotonicNow_;

    std::deque<PendingJob> pending_;
    std::optional<QUuid> activeJobID_;
    bool isDraining_ = false;
    std::unordered_map<CapturedSelection::DeduplicationKey, double, CapturedSelection::DeduplicationKeyHash>
        recentSubmissions_;

    TaskHandle drainTask_;
    std::vector<TaskHandle> cleanupTasks_;
    LifetimeToken lifetime_;
};

} // namespace parlune
