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

// A continuation, a stop source for its waiter, and what the waiter got.
class ContinuationTest : public ::testing::Test {
protected:
    std::stop_source source;
    Continuation<int> continuation;
    Outcome outcome;
};

TEST_F(ContinuationTest, ValueGivenBeforeWaitingIsReturnedWithoutSuspending) {
    EXPECT_TRUE(continuation.resume(7));
    auto task = awaitInto(continuation, {}, &outcome);
    EXPECT_TRUE(outcome.finished); // no trip through the event loop was needed
    EXPECT_EQ(outcome.value, 7);
}

TEST_F(ContinuationTest, ResumptionIsDeliveredOnALaterTurnOfTheEventLoop) {
    auto task = awaitInto(continuation, {}, &outcome);
    ASSERT_FALSE(outcome.finished);
    EXPECT_TRUE(continuation.resume(3));
    EXPECT_FALSE(outcome.finished) << "the waiter must not run on the resumer's stack";
    ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
    EXPECT_EQ(outcome.value, 3);
}

TEST_F(ContinuationTest, FirstCompletionWinsAndErrorsPropagate) {
    auto task = awaitInto(continuation, {}, &outcome);
    EXPECT_TRUE(continuation.resumeThrowing(std::make_exception_ptr(std::runtime_error("boom"))));
    EXPECT_FALSE(continuation.resume(1));
    ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
    EXPECT_EQ(outcome.error, "boom");
    EXPECT_FALSE(outcome.value);
}

TEST_F(ContinuationTest, AlreadyCancelledFailsAtOnceWithoutSuspending) {
    source.request_stop();
    auto task = awaitInto(continuation, source.get_token(), &outcome);
    EXPECT_TRUE(outcome.finished);
    EXPECT_TRUE(outcome.cancelled);
    EXPECT_FALSE(continuation.resume(1)) << "a cancelled continuation is completed";
}

TEST_F(ContinuationTest, CancelledWhileSuspendedEndsCancelledAndRefusesALateValue) {
    auto task = awaitInto(continuation, source.get_token(), &outcome);
    source.request_stop();
    ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
    EXPECT_TRUE(outcome.cancelled);
    EXPECT_FALSE(continuation.resume(5));
}

TEST_F(ContinuationTest, CancelledAfterTheValueArrivedKeepsTheValue) {
    auto task = awaitInto(continuation, source.get_token(), &outcome);
    continuation.resume(9);
    source.request_stop();
    ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
    EXPECT_FALSE(outcome.cancelled);
    EXPECT_EQ(outcome.value, 9);
}

TEST_F(ContinuationTest, StopRequestedFromAnotherThreadResumesOnTheMainThread) {
    auto task = awaitInto(continuation, source.get_token(), &outcome);
    std::thread([this] { source.request_stop(); }).join();
    ASSERT_TRUE(pumpUntil([&] { return outcome.finished; }));
    EXPECT_TRUE(outcome.cancelled);
}

} // namespace
} // namespace parlune
