#include "core/pipeline/RewriteJobQueue.h"

#include "core/async/Continuation.h"
#include "core/async/Sleep.h"
#include "support/RunTask.h"

#include <gtest/gtest.h>

#include <vector>

namespace parlune {
namespace {

using test::pumpUntil;

RewriteJob makeJob(const QString& text, ProcessId pid = 4242) {
    const CapturedSelection selection(QUuid::createUuid(), text, QStringLiteral("org.example.Editor"), pid,
                                      TextRange{0, 5}, SelectionReplacementStrategy::clipboardFallback,
                                      nullptr);
    return RewriteJob{QUuid::createUuid(), selection, RewriteMode::casual, QString(),
                      std::chrono::system_clock::now()};
}

QCoro::Task<void> op(RewriteJob /*job*/, std::stop_token /*token*/) {
    co_return;
}

// A job operation that waits until the test releases it, recording start and end.
struct GatedOperations {
    std::vector<QString> started;
    std::vector<QString> finished;
    std::vector<Continuation<void>> releases;
    int running = 0;
    int maxConcurrent = 0;

    RewriteJobQueue::Operation operation() {
        return [this](RewriteJob job, std::stop_token token) -> QCoro::Task<void> {
            Continuation<void> release;
            releases.push_back(release);
            started.push_back(job.selection.text());
            maxConcurrent = std::max(maxConcurrent, ++running);
            co_await release.wait(token);
            --running;
            finished.push_back(job.selection.text());
        };
    }
    void releaseNext() {
        for (auto& release : releases) {
            if (!release.isCompleted()) {
                release.resume();
                return;
            }
        }
    }
};

TEST(RewriteJobQueueTest, RunsOneJobAtATimeInAcceptanceOrder) {
    RewriteJobQueue queue(10);
    GatedOperations ops;
    std::vector<QString> completions;
    for (const char* text : {"one", "two", "three", "four"}) {
        const QString name = QString::fromUtf8(text);
        EXPECT_EQ(queue.enqueue(makeJob(name), std::nullopt, ops.operation(),
                                [&, name] { completions.push_back(name); }),
                  RewriteJobEnqueueResult::accepted);
    }
    EXPECT_TRUE(ops.started.empty()) << "enqueue never runs the job on the caller's stack";
    for (int i = 0; i < 4; ++i) {
        ASSERT_TRUE(pumpUntil([&] { return static_cast<int>(ops.started.size()) == i + 1; }));
        ops.releaseNext();
    }
    ASSERT_TRUE(pumpUntil([&] { return completions.size() == 4; }));
    const std::vector<QString> expected{"one", "two", "three", "four"};
    EXPECT_EQ(ops.started, expected);
    EXPECT_EQ(completions, expected);
    EXPECT_EQ(ops.maxConcurrent, 1);
    EXPECT_EQ(queue.outstandingJobCount(), 0);
}

TEST(RewriteJobQueueTest, RunningJobCountsTowardCapacityUntilItsCompletion) {
    RewriteJobQueue queue; // 3 outstanding at most
    GatedOperations ops;
    int completed = 0;
    auto done = [&] { ++completed; };
    for (const char* text : {"a", "b", "c"}) {
        ASSERT_EQ(queue.enqueue(makeJob(QString::fromUtf8(text)), std::nullopt, ops.operation(), done),
                  RewriteJobEnqueueResult::accepted);
    }
    ASSERT_TRUE(pumpUntil([&] { return ops.started.size() == 1; }));
    EXPECT_EQ(queue.outstandingJobCount(), 3); // one running, two pending
    EXPECT_EQ(queue.enqueue(makeJob(QStringLiteral("d")), std::nullopt, ops.operation(), done),
              RewriteJobEnqueueResult::queueFull);
    EXPECT_EQ(queue.recentSubmissionCount(), 3u) << "a refused job leaves no de-duplication entry";

    ops.releaseNext();
    ASSERT_TRUE(pumpUntil([&] { return completed == 1; }));
    EXPECT_EQ(queue.enqueue(makeJob(QStringLiteral("d")), std::nullopt, ops.operation(), done),
              RewriteJobEnqueueResult::accepted);
    for (int next = 2; next <= 4; ++next) {
        ASSERT_TRUE(pumpUntil([&] { return static_cast<int>(ops.started.size()) == next; }));
        ops.releaseNext();
        ASSERT_TRUE(pumpUntil([&] { return completed == next; }));
    }
}

TEST(RewriteJobQueueTest, DeduplicationIntervalRestartsAtEachRepeatAndBothBoundsAreInclusive) {
    RewriteJobQueue queue(10, 1.0, [] { return 0.0; });
    auto enqueueAt = [&](double t) { return queue.enqueue(makeJob(QStringLiteral("same")), t, op, [] {}); };
    EXPECT_EQ(enqueueAt(10.0), RewriteJobEnqueueResult::accepted);
    EXPECT_EQ(enqueueAt(10.4), RewriteJobEnqueueResult::deduplicated);
    EXPECT_EQ(enqueueAt(11.3), RewriteJobEnqueueResult::deduplicated);  // 0.9 after the last repeat
    EXPECT_EQ(enqueueAt(12.3), RewriteJobEnqueueResult::deduplicated);  // exactly 1.0: inclusive
    EXPECT_EQ(enqueueAt(13.31), RewriteJobEnqueueResult::accepted);     // 1.01 later
    EXPECT_EQ(enqueueAt(13.31), RewriteJobEnqueueResult::deduplicated); // same instant: difference 0
    // Other text or another process is never a duplicate.
    EXPECT_EQ(queue.enqueue(makeJob(QStringLiteral("same!")), 13.31, op, [] {}),
              RewriteJobEnqueueResult::accepted);
    EXPECT_EQ(queue.enqueue(makeJob(QStringLiteral("same"), 7), 13.31, op, [] {}),
              RewriteJobEnqueueResult::accepted);
}

TEST(RewriteJobQueueTest, EarlierTimestampIsNeverADuplicateAndPurgesTheFutureEntry) {
    RewriteJobQueue queue(10, 1.0);
    EXPECT_EQ(queue.enqueue(makeJob(QStringLiteral("x")), 50.0, op, [] {}),
              RewriteJobEnqueueResult::accepted);
    EXPECT_EQ(queue.enqueue(makeJob(QStringLiteral("y")), 49.5, op, [] {}),
              RewriteJobEnqueueResult::accepted);
    // The entry at 50.0 lay in the future of 49.5 and was purged; only y's remains.
    EXPECT_EQ(queue.recentSubmissionCount(), 1u);
    EXPECT_EQ(queue.enqueue(makeJob(QStringLiteral("x")), 49.6, op, [] {}),
              RewriteJobEnqueueResult::accepted);
}

TEST(RewriteJobQueueTest, CleanupPurgesByTheInjectedClockAfterTheInterval) {
    double now = 100.0;
    RewriteJobQueue queue(10, 0.05, [&] { return now; });
    queue.enqueue(makeJob(QStringLiteral("x")), std::nullopt, op, [] {});
    EXPECT_EQ(queue.recentSubmissionCount(), 1u);
    now = 100.2;
    ASSERT_TRUE(pumpUntil([&] { return queue.recentSubmissionCount() == 0; }, 2000));

    // With no interval a repeat is a duplicate only until the clean-up runs.
    RewriteJobQueue immediate(10, 0.0);
    EXPECT_EQ(immediate.enqueue(makeJob(QStringLiteral("x")), 1.0, op, [] {}),
              RewriteJobEnqueueResult::accepted);
    EXPECT_EQ(immediate.enqueue(makeJob(QStringLiteral("x")), 1.0, op, [] {}),
              RewriteJobEnqueueResult::deduplicated);
    ASSERT_TRUE(pumpUntil([&] { return immediate.recentSubmissionCount() == 0; }));
    EXPECT_EQ(immediate.enqueue(makeJob(QStringLiteral("x")), 1.0, op, [] {}),
              RewriteJobEnqueueResult::accepted);
}

TEST(RewriteJobQueueTest, SubmitAnswersCompletedOnlyAfterOperationAndCompletion) {
    RewriteJobQueue queue;
    bool operationFinished = false;
    std::optional<RewriteJobSubmission> answer;
    auto slow = [&](RewriteJob, std::stop_token token) -> QCoro::Task<void> {
        co_await sleepFor(std::chrono::milliseconds(20), token);
        operationFinished = true;
    };
    auto submitter = [&]() -> QCoro::Task<void> {
        answer = co_await queue.submit(makeJob(QStringLiteral("x")), 3.0, slow);
        EXPECT_TRUE(operationFinished);
    };
    auto task = submitter();
    EXPECT_FALSE(answer);
    ASSERT_TRUE(pumpUntil([&] { return answer.has_value(); }));
    EXPECT_EQ(*answer, RewriteJobSubmission::completed);

    // A repeat within the interval is answered at once.
    auto repeat = queue.submit(makeJob(QStringLiteral("x")), 3.5, slow);
    EXPECT_TRUE(repeat.isReady());
    EXPECT_EQ(test::runTask(std::move(repeat)), RewriteJobSubmission::deduplicated);
}

TEST(RewriteJobQueueTest, DestroyingTheQueueWithWorkInFlightEndsQuietly) {
    GatedOperations ops;
    int completed = 0;
    {
        RewriteJobQueue queue;
        queue.enqueue(makeJob(QStringLiteral("a")), std::nullopt, ops.operation(), [&] { ++completed; });
        queue.enqueue(makeJob(QStringLiteral("b")), std::nullopt, ops.operation(), [&] { ++completed; });
        ASSERT_TRUE(pumpUntil([&] { return ops.started.size() == 1; }));
    }
    test::pumpFor(20);
    EXPECT_EQ(ops.started.size(), 1u);
    EXPECT_EQ(completed, 0);
}

} // namespace
} // namespace parlune
