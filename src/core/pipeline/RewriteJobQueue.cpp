#include "core/pipeline/RewriteJobQueue.h"

#include "core/async/Continuation.h"
#include "core/async/Sleep.h"

#include <algorithm>
#include <cmath>

namespace parlune {

RewriteJobQueue::RewriteJobQueue(int maximumOutstandingJobs, double deduplicationInterval,
                                 MonotonicNow monotonicNow)
    : maximumOutstandingJobs_(maximumOutstandingJobs), deduplicationInterval_(deduplicationInterval),
      monotonicNow_(monotonicNow ? std::move(monotonicNow)
                                 : [] { return SystemClock::shared().uptimeSeconds(); }) {}

RewriteJobQueue::~RewriteJobQueue() {
    drainTask_.cancel();
    for (TaskHandle& task : cleanupTasks_) {
        task.cancel();
    }
}

int RewriteJobQueue::outstandingJobCount() const {
    return static_cast<int>(pending_.size()) + (activeJobID_ ? 1 : 0);
}

RewriteJobEnqueueResult RewriteJobQueue::enqueue(RewriteJob job, std::optional<double> deduplicationTimestamp,
                                                 Operation operation, Completion completion) {
    const double timestamp = deduplicationTimestamp ? *deduplicationTimestamp : monotonicNow_();
    purgeRecentSubmissions(timestamp);

    const CapturedSelection::DeduplicationKey key = job.selection.deduplicationKey();
    if (auto found = recentSubmissions_.find(key); found != recentSubmissions_.end()) {
        const double age = timestamp - found->second;
        if (age >= 0 && age <= deduplicationInterval_) {
            // Each repeat restarts the interval, so a held key keeps being recognised.
            found->second = timestamp;
            scheduleCleanup();
            return RewriteJobEnqueueResult::deduplicated;
        }
    }

    // A refused job leaves no trace, so pressing again later is not mistaken for a repeat.
    if (outstandingJobCount() >= maximumOutstandingJobs_) {
        return RewriteJobEnqueueResult::queueFull;
    }

    recentSubmissions_[key] = timestamp;
    scheduleCleanup();
    pending_.push_back(PendingJob{std::move(job), std::move(operation), std::move(completion)});
    beginDrainingIfNeeded();
    return RewriteJobEnqueueResult::accepted;
}

QCoro::Task<RewriteJobSubmission>
RewriteJobQueue::submit(RewriteJob job, std::optional<double> deduplicationTimestamp, Operation operation) {
    Continuation<void> finished;
    const RewriteJobEnqueueResult result =
        enqueue(std::move(job), deduplicationTimestamp, std::move(operation),
                [finished]() mutable { finished.resume(); });
    switch (result) {
    case RewriteJobEnqueueResult::deduplicated:
        co_return RewriteJobSubmission::deduplicated;
    case RewriteJobEnqueueResult::queueFull:
        co_return RewriteJobSubmission::queueFull;
    case RewriteJobEnqueueResult::accepted:
        break;
    }
    co_await finished.wait();
    co_return RewriteJobSubmission::completed;
}

void RewriteJobQueue::purgeRecentSubmissions(double timestamp) {
    // Entries from the future of `timestamp` go as well as those that are too old.
    std::erase_if(recentSubmissions_, [&](const auto& entry) {
        const double age = timestamp - entry.second;
        return !(age >= 0 && age <= deduplicationInterval_);
    });
}

void RewriteJobQueue::scheduleCleanup() {
    std::erase_if(cleanupTasks_, [](const TaskHandle& task) { return task.isFinished(); });
    cleanupTasks_.push_back(spawnTask([weakQueue = lifetime_.weak(this), interval = deduplicationInterval_](
                                          std::stop_token token) -> QCoro::Task<void> {
        if (!(interval > 0)) {
            if (RewriteJobQueue* queue = weakQueue.lock()) {
                queue->recentSubmissions_.clear();
            }
            co_return;
        }
        const auto nanoseconds = static_cast<std::uint64_t>(interval * 1'000'000'000.0);
        co_await sleepFor(std::chrono::nanoseconds(nanoseconds), token);
        if (RewriteJobQueue* queue = weakQueue.lock()) {
            queue->purgeRecentSubmissions(queue->monotonicNow_());
        }
    }));
}

void RewriteJobQueue::beginDrainingIfNeeded() {
    if (isDraining_) {
        return; // the running drain reaches the new entry
    }
    isDraining_ = true;
    drainTask_ = spawnTask([weakQueue = lifetime_.weak(this)](std::stop_token token) -> QCoro::Task<void> {
        co_await drain(weakQueue, token);
    });
}

QCoro::Task<void> RewriteJobQueue::drain(WeakRef<RewriteJobQueue> weakQueue, std::stop_token token) {
    while (true) {
        RewriteJobQueue* queue = weakQueue.lock();
        if (!queue) {
            co_return;
        }
        if (queue->pending_.empty()) {
            queue->isDraining_ = false;
            co_return;
        }
        PendingJob entry = std::move(queue->pending_.front());
        queue->pending_.pop_front();
        queue->activeJobID_ = entry.job.id;

        try {
            co_await entry.operation(entry.job, token);
        } catch (const CancellationError&) {
            // The queue is being torn down; the job reports nothing more.
        } catch (...) {
            // Operations report their own failures; one that throws anyway must not stop the queue.
        }

        queue = weakQueue.lock();
        if (!queue) {
            co_return;
        }
        queue->activeJobID_.reset();
        if (entry.completion) {
            entry.completion();
        }
    }
}

} // namespace parlune
