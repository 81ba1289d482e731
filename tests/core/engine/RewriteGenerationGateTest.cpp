#include "core/engine/RewriteGenerationGate.h"
#include "core/async/CancellationError.h"

#include "support/RunTask.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace parlune {
namespace {

// One contender for the gate: records when it got the gate or was cancelled.
struct Contender {
    std::string name;
    std::stop_source stop;
    QCoro::Task<void> task;
};

class RewriteGenerationGateTest : public ::testing::Test {
protected:
    static QCoro::Task<void> contend(RewriteGenerationGate& gate, std::stop_token token,
                                     std::vector<std::string>& log, std::string name) {
        try {
            co_await gate.acquire(token);
            log.push_back(name + " holds");
        } catch (const CancellationError&) {
            log.push_back(name + " cancelled");
        }
    }

    Contender& start(const std::string& name) {
        auto contender = std::make_unique<Contender>();
        contender->name = name;
        contender->task = contend(gate, contender->stop.get_token(), log, name);
        contenders.push_back(std::move(contender));
        return *contenders.back();
    }

    void settle() { test::pumpFor(20); }

    RewriteGenerationGate gate;
    std::vector<std::string> log;
    std::vector<std::unique_ptr<Contender>> contenders;
};

TEST_F(RewriteGenerationGateTest, SecondWaitsAndReceivesTheGateWithoutAGap) {
    start("a");
    start("b");
    settle();
    EXPECT_EQ(log, (std::vector<std::string>{"a holds"}));
    EXPECT_EQ(gate.waiterCount(), 1u);

    gate.release();
    // Handed over at once: a newcomer now must queue, even before b has run.
    EXPECT_TRUE(gate.isAcquired());
    EXPECT_EQ(gate.waiterCount(), 0u);
    start("c");
    settle();
    EXPECT_EQ(log, (std::vector<std::string>{"a holds", "b holds"}));

    gate.release();
    settle();
    EXPECT_EQ(log.back(), "c holds");
    gate.release();
    EXPECT_FALSE(gate.isAcquired());
}

TEST_F(RewriteGenerationGateTest, CancellingOneWaiterLeavesTheOthersInOrder) {
    start("a");
    start("b");
    Contender& c = start("c");
    start("d");
    settle();
    ASSERT_EQ(gate.waiterCount(), 3u);

    c.stop.request_stop();
    settle();
    EXPECT_EQ(log, (std::vector<std::string>{"a holds", "c cancelled"}));
    EXPECT_EQ(gate.waiterCount(), 2u);

    gate.release();
    settle();
    gate.release();
    settle();
    EXPECT_EQ(log, (std::vector<std::string>{"a holds", "c cancelled", "b holds", "d holds"}));
    gate.release();
    EXPECT_FALSE(gate.isAcquired());
}

TEST_F(RewriteGenerationGateTest, CancelledAtHandOverPassesTheGateOn) {
    start("a");
    Contender& b = start("b");
    start("c");
    settle();

    // The stop and the hand-over land in the same turn: b is handed the gate already cancelled.
    b.stop.request_stop();
    gate.release();
    settle();
    EXPECT_EQ(log, (std::vector<std::string>{"a holds", "b cancelled", "c holds"}));
    EXPECT_TRUE(gate.isAcquired());

    Contender& d = start("d");
    settle();
    d.stop.request_stop();
    gate.release();
    settle();
    EXPECT_EQ(log.back(), "d cancelled");
    EXPECT_FALSE(gate.isAcquired()); // the last waiter frees it rather than hold it for nobody
    EXPECT_EQ(gate.waiterCount(), 0u);
}

TEST_F(RewriteGenerationGateTest, AlreadyCancelledCallerTouchesNothing) {
    std::stop_source stopped;
    stopped.request_stop();
    EXPECT_THROW(test::runTask(gate.acquire(stopped.get_token())), CancellationError);
    EXPECT_FALSE(gate.isAcquired());

    start("a");
    settle();
    EXPECT_THROW(test::runTask(gate.acquire(stopped.get_token())), CancellationError);
    EXPECT_TRUE(gate.isAcquired());
    EXPECT_EQ(gate.waiterCount(), 0u);
    gate.release();
}

TEST_F(RewriteGenerationGateTest, StopFromAnotherThreadIsHandledOnTheMainThread) {
    start("a");
    Contender& b = start("b");
    settle();
    std::thread([&b] { b.stop.request_stop(); }).join();
    settle();
    EXPECT_EQ(log.back(), "b cancelled");
    EXPECT_EQ(gate.waiterCount(), 0u);
    gate.release();
}

TEST(RewriteGenerationGateLifetimeTest, WaitersOfADestroyedGateEndCancelled) {
    std::vector<std::string> log;
    auto gate = std::make_unique<RewriteGenerationGate>();
    test::runTask(gate->acquire({}));
    bool cancelled = false;
    auto waiter = [](RewriteGenerationGate& g, bool& flag) -> QCoro::Task<void> {
        try {
            co_await g.acquire({});
        } catch (const CancellationError&) {
            flag = true;
        }
    };
    QCoro::Task<void> task = waiter(*gate, cancelled);
    test::pumpFor(10);
    gate.reset();
    EXPECT_TRUE(test::pumpUntil([&] { return cancelled; }, 1000));
}

TEST(RewriteGenerationGateDeathTest, ReleaseWithoutHolderStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            RewriteGenerationGate gate;
            gate.release();
        },
        "released without a holder");
}

} // namespace
} // namespace parlune
