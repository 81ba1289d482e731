#include "core/async/Continuation.h"

#include "support/RunTask.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace parlune {
namespace {

using test::pumpUntil;

// Awaits `continuation` and records what came out of it.
struct Outcome {
    bool finished = false;
    std::optional<int> value;
    bool cancelled = false;
    std::string error;
};

QCoro::Task<void> awaitInto(Continuation<int> continuation, std::stop_token token, Outcome* outcome) {
    try {
        outcome->value = co_await continuation.wait(token);
    } catch (const CancellationError&) {
        outcome->cancelled = true;
    } catch (const std::exception& error) {
        outcome->error = error.what();
    }
    outcome->finished = true;
}

TEST(ContinuationTest, ValueGivenBeforeWaitingIsReturnedWithoutSuspending) {
    Continuation<int> continuation;
    EXPECT_TRUE(continuation.resume(7));
    Outcome outcome;
    auto task = awaitInto(continuation, {}, &outcome);
    EXPECT_TRUE(outcome.finished); // no trip through the event loop was needed
    EXPECT_EQ(outcome.value, 7);
}

TEST(ContinuationTest, ResumptionIsDeliveredOnALaterTurnOfTheEventLoop) {
    Continuation<int> continuation;
    Outcome outcome;
    auto task = awaitInto(continuation, {}, &outcome);
    ASSERT_FALSE(outcome.finished);
    EXPECT_TRUE(continuation.resume(3));
    EXPECT_FALSE(outcome.finished) << "the waiter must not run on the resumer's stack";
    ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
    EXPECT_EQ(outcome.value, 3);
}

TEST(ContinuationTest, FirstCompletionWinsAndErrorsPropagate) {
    Continuation<int> continuation;
    Outcome outcome;
    auto task = awaitInto(continuation, {}, &outcome);
    EXPECT_TRUE(continuation.resumeThrowing(std::make_exception_ptr(std::runtime_error("boom"))));
    EXPECT_FALSE(continuation.resume(1));
    ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
    EXPECT_EQ(outcome.error, "boom");
    EXPECT_FALSE(outcome.value);
}

TEST(ContinuationTest, CancellationBeforeDuringAndAfterSuspension) {
    {
        SCOPED_TRACE("already cancelled: fails at once, never suspends");
        std::stop_source source;
        source.request_stop();
        Continuation<int> continuation;
        Outcome outcome;
        auto task = awaitInto(continuation, source.get_token(), &outcome);
        EXPECT_TRUE(outcome.finished);
        EXPECT_TRUE(outcome.cancelled);
        EXPECT_FALSE(continuation.resume(1)) << "a cancelled continuation is completed";
    }
    {
        SCOPED_TRACE("cancelled while suspended: ends with a cancellation, a late value is refused");
        std::stop_source source;
        Continuation<int> continuation;
        Outcome outcome;
        auto task = awaitInto(continuation, source.get_token(), &outcome);
        source.request_stop();
        ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
        EXPECT_TRUE(outcome.cancelled);
        EXPECT_FALSE(continuation.resume(5));
    }
    {
        SCOPED_TRACE("cancelled after the value arrived: the value wins");
        std::stop_source source;
        Continuation<int> continuation;
        Outcome outcome;
        auto task = awaitInto(continuation, source.get_token(), &outcome);
        continuation.resume(9);
        source.request_stop();
        ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
        EXPECT_FALSE(outcome.cancelled);
        EXPECT_EQ(outcome.value, 9);
    }
}

TEST(ContinuationTest, StopRequestedFromAnotherThreadResumesOnTheMainThread) {
    std::stop_source source;
    Continuation<int> continuation;
    Outcome outcome;
    auto task = awaitInto(continuation, source.get_token(), &outcome);
    std::thread([&source] { source.request_stop(); }).join();
    ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
    EXPECT_TRUE(outcome.cancelled);
}

} // namespace
} // namespace parlune
