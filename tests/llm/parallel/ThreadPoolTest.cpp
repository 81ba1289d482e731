#include "llm/parallel/ThreadPool.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace parlune::llm {
namespace {

TEST(ThreadPool, CoversEveryIndexExactlyOnce) {
    for (int threads : {1, 2, 3, 5}) {
        ThreadPool pool(threads);
        EXPECT_EQ(pool.threadCount(), threads);
        for (std::int64_t count : {0, 1, 2, 3, 7, 1000, 4097}) {
            std::vector<std::atomic<int>> hits(static_cast<std::size_t>(count));
            pool.parallelFor(count, [&](std::int64_t begin, std::int64_t end) {
                ASSERT_LT(begin, end);
                for (std::int64_t i = begin; i < end; ++i)
                    hits[static_cast<std::size_t>(i)].fetch_add(1);
            });
            for (std::int64_t i = 0; i < count; ++i)
                ASSERT_EQ(hits[i].load(), 1) << "threads " << threads << " i " << i;
        }
    }
}

TEST(ThreadPool, ManyTinyCallsInARow) {
    ThreadPool pool(3);
    std::atomic<std::int64_t> sum{0};
    constexpr int kCalls = 20000;
    for (int call = 0; call < kCalls; ++call) {
        pool.parallelFor(4, [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t i = begin; i < end; ++i)
                sum.fetch_add(i + 1);
        });
    }
    EXPECT_EQ(sum.load(), std::int64_t{kCalls} * 10);
}

TEST(ThreadPool, CallsAfterIdleTimeWakeSleepingWorkers) {
    ThreadPool pool(2);
    for (int round = 0; round < 3; ++round) {
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // workers go to sleep
        // Each piece waits (bounded) for the other, so both threads must be running at once.
        std::atomic<int> entered{0};
        std::atomic<bool> met{true};
        pool.parallelFor(2, [&](std::int64_t, std::int64_t) {
            entered.fetch_add(1);
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
            while (entered.load() < 2) {
                if (std::chrono::steady_clock::now() > deadline) {
                    met = false;
                    return;
                }
                std::this_thread::yield();
            }
        });
        EXPECT_TRUE(met.load()) << "the sleeping worker never took its piece";
        EXPECT_EQ(entered.load(), 2);
    }
}

TEST(ThreadPool, NestedCallsRunInlineAndComplete) {
    ThreadPool pool(2);
    std::atomic<int> inner{0};
    pool.parallelFor(4, [&](std::int64_t begin, std::int64_t end) {
        for (std::int64_t i = begin; i < end; ++i) {
            pool.parallelFor(
                10, [&](std::int64_t b, std::int64_t e) { inner.fetch_add(static_cast<int>(e - b)); });
        }
    });
    EXPECT_EQ(inner.load(), 40);
}

TEST(ThreadPool, ExceptionReachesTheCallerAndThePoolKeepsWorking) {
    ThreadPool pool(2);
    EXPECT_THROW(pool.parallelFor(8,
                                  [](std::int64_t begin, std::int64_t) {
                                      if (begin >= 4)
                                          throw std::runtime_error("share failed");
                                  }),
                 std::runtime_error);
    std::atomic<int> count{0};
    pool.parallelFor(8, [&](std::int64_t b, std::int64_t e) { count.fetch_add(static_cast<int>(e - b)); });
    EXPECT_EQ(count.load(), 8);
}

TEST(ThreadPool, CallersOnSeveralThreadsAreServedInTurn) {
    ThreadPool pool(2);
    std::atomic<std::int64_t> total{0};
    auto client = [&] {
        for (int i = 0; i < 2000; ++i) {
            pool.parallelFor(16, [&](std::int64_t b, std::int64_t e) { total.fetch_add(e - b); });
        }
    };
    std::thread a(client), b(client);
    a.join();
    b.join();
    EXPECT_EQ(total.load(), 2 * 2000 * 16);
}

} // namespace
} // namespace parlune::llm
