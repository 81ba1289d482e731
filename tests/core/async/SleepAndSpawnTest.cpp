#include "core/async/Continuation.h"
#include "core/async/Sleep.h"
#include "core/async/TaskHandle.h"
#include "core/async/WeakRef.h"

#include "support/RunTask.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

namespace parlune {
namespace {

using namespace std::chrono_literals;
using test::pumpUntil;
using test::runTask;

TEST(SleepTest, SleepsAtLeastItsDurationOnTheMonotonicClock) {
    const auto start = std::chrono::steady_clock::now();
    runTask(sleepFor(30ms, {}));
    EXPECT_GE(std::chrono::steady_clock::now() - start, 30ms);
    runTask(sleepFor(0ns, {}));
    runTask(sleepForSeconds(-1.0, {})); // negative durations do not wait
}

TEST(SleepTest, CancellationEndsTheSleepEarly) {
    std::stop_source source;
    bool cancelled = false;
    bool done = false;
    auto sleeper = [&]() -> QCoro::Task<void> {
        try {
            co_await sleepForSeconds(30.0, source.get_token());
        } catch (const CancellationError&) {
            cancelled = true;
        }
        done = true;
    };
    auto task = sleeper();
    test::pumpFor(10);
    source.request_stop();
    ASSERT_TRUE(pumpUntil([&] { return done; }, 20'000)); // well before the 30 s
    EXPECT_TRUE(cancelled);
}

TEST(SleepTest, AlreadyCancelledTokenThrowsBeforeSuspending) {
    std::stop_source source;
    source.request_stop();
    EXPECT_THROW(runTask(sleepFor(10s, source.get_token())), CancellationError);
}

TEST(SpawnTaskTest, BodyStartsOnALaterTurnNotInsideTheCaller) {
    bool started = false;
    TaskHandle handle = spawnTask([&](std::stop_token) -> QCoro::Task<void> {
        started = true;
        co_return;
    });
    EXPECT_FALSE(started);
    ASSERT_TRUE(pumpUntil([&] { return handle.isFinished(); }));
    EXPECT_TRUE(started);
}

TEST(SpawnTaskTest, CancelledWhileSuspendedEndsQuietly) {
    bool reachedEnd = false;
    TaskHandle handle = spawnTask([&](std::stop_token token) -> QCoro::Task<void> {
        co_await sleepForSeconds(30.0, token);
        reachedEnd = true;
    });
    test::pumpFor(10);
    EXPECT_FALSE(handle.isFinished());
    handle.cancel();
    EXPECT_TRUE(handle.isCancelled());
    ASSERT_TRUE(pumpUntil([&] { return handle.isFinished(); }, 20'000));
    EXPECT_FALSE(reachedEnd);
}

TEST(SpawnTaskTest, UnexpectedErrorsDoNotEscapeTheTask) {
    TaskHandle handle = spawnTask([](std::stop_token) -> QCoro::Task<void> {
        co_await yieldToEventLoop();
        throw std::runtime_error("unexpected");
    });
    ASSERT_TRUE(pumpUntil([&] { return handle.isFinished(); }));
}

// An owner whose task must neither keep it alive nor touch it once it is gone.
class Owner {
public:
    explicit Owner(int* touches) : touches_(touches) {}
    // Touches the owner once `go` is resumed.
    TaskHandle startWaiting(Continuation<void> go) {
        return spawnTask(
            [weak = lifetime_.weak(this), go](std::stop_token token) mutable -> QCoro::Task<void> {
                co_await go.wait(token);
                if (Owner* owner = weak.lock()) {
                    ++*owner->touches_;
                }
            });
    }

private:
    int* touches_;
    LifetimeToken lifetime_;
};

TEST(SpawnTaskTest, OwnerDestroyedWhileTaskIsSuspended) {
    int touches = 0;
    auto owner = std::make_unique<Owner>(&touches);
    Continuation<void> first;
    TaskHandle survivor = owner->startWaiting(first);
    ASSERT_TRUE(pumpUntil([&] { return first.hasWaiter(); }));
    first.resume();
    ASSERT_TRUE(pumpUntil([&] { return survivor.isFinished(); }));
    EXPECT_EQ(touches, 1);

    Continuation<void> second;
    TaskHandle orphan = owner->startWaiting(second);
    ASSERT_TRUE(pumpUntil([&] { return second.hasWaiter(); }));
    owner.reset();
    second.resume();
    ASSERT_TRUE(pumpUntil([&] { return orphan.isFinished(); }));
    EXPECT_EQ(touches, 1);
}

} // namespace
} // namespace parlune
