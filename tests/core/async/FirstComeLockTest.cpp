#include "core/async/FirstComeLock.h"
#include "core/async/CancellationError.h"

#include "support/RunTask.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace parlune {
namespace {

using test::pumpUntil;
using Log = std::vector<std::string>;

// One caller of the lock: keeps its lease until the test releases it.
struct Contender {
    std::stop_source stop;
    FirstComeLock::Lease lease;
    bool done = false;
    QCoro::Task<void> task;
};

class FirstComeLockTest : public ::testing::Test {
protected:
    static QCoro::Task<void> contend(FirstComeLock& lock, Contender& self, Log& log, std::string name) {
        try {
            self.lease = co_await lock.acquire(self.stop.get_token());
            log.push_back(name + " holds");
        } catch (const CancellationError&) {
            log.push_back(name + " cancelled");
        }
        self.done = true;
    }

    // No contender may be left to resume after the test.
    ~FirstComeLockTest() override {
        for (auto& contender : contenders) {
            contender->stop.request_stop();
            contender->lease.release();
        }
        EXPECT_TRUE(pumpUntil([&] {
            return std::all_of(contenders.begin(), contenders.end(), [](const auto& c) { return c->done; });
        }));
        for (auto& contender : contenders) {
            contender->lease.release();
        }
    }

    Contender& start(const std::string& name) {
        contenders.push_back(std::make_unique<Contender>());
        Contender& contender = *contenders.back();
        contender.task = contend(lock, contender, log, name);
        return contender;
    }

    // Runs the event loop until the log has `size` lines; a line too many shows up in the checks.
    void settle(std::size_t size) {
        ASSERT_TRUE(pumpUntil([&] { return log.size() >= size; })) << testing::PrintToString(log);
        test::pumpFor(5);
    }

    FirstComeLock lock;
    Log log;
    std::vector<std::unique_ptr<Contender>> contenders;
};

TEST_F(FirstComeLockTest, ReleaseHandsTheLockToTheOldestWaiterWithoutAGap) {
    Contender& a = start("a");
    Contender& b = start("b");
    EXPECT_EQ(log, Log{"a holds"}) << "a free lock is taken on the caller's stack";
    EXPECT_EQ(lock.waiterCount(), 1u);

    a.lease.release();
    // Handed over at once: a newcomer must queue even before b has run.
    EXPECT_TRUE(lock.isHeld());
    EXPECT_EQ(lock.waiterCount(), 0u);
    Contender& c = start("c");
    settle(2);
    EXPECT_EQ(log, (Log{"a holds", "b holds"}));

    b.lease.release();
    settle(3);
    EXPECT_EQ(log.back(), "c holds");
    c.lease.release();
    EXPECT_FALSE(lock.isHeld());
}

TEST_F(FirstComeLockTest, CancellingOneWaiterLeavesTheOthersInOrder) {
    Contender& a = start("a");
    Contender& b = start("b");
    Contender& c = start("c");
    Contender& d = start("d");
    ASSERT_EQ(lock.waiterCount(), 3u);

    c.stop.request_stop();
    settle(2);
    EXPECT_EQ(log, (Log{"a holds", "c cancelled"}));
    EXPECT_EQ(lock.waiterCount(), 2u);

    a.lease.release();
    settle(3);
    b.lease.release();
    settle(4);
    EXPECT_EQ(log, (Log{"a holds", "c cancelled", "b holds", "d holds"}));
    d.lease.release();
    EXPECT_FALSE(lock.isHeld());
}

TEST_F(FirstComeLockTest, CancelledAtHandOverPassesTheLockOn) {
    Contender& a = start("a");
    Contender& b = start("b");
    Contender& c = start("c");

    // The stop and the hand-over land in the same turn: b is handed the lock already cancelled.
    b.stop.request_stop();
    a.lease.release();
    settle(3);
    EXPECT_EQ(log, (Log{"a holds", "b cancelled", "c holds"}));
    EXPECT_TRUE(lock.isHeld());

    Contender& d = start("d");
    d.stop.request_stop();
    c.lease.release();
    settle(4);
    EXPECT_EQ(log.back(), "d cancelled");
    EXPECT_FALSE(lock.isHeld()); // the last waiter frees it rather than hold it for nobody
    EXPECT_EQ(lock.waiterCount(), 0u);
}

TEST_F(FirstComeLockTest, AlreadyCancelledCallerTouchesNothing) {
    std::stop_source stopped;
    stopped.request_stop();
    EXPECT_THROW(test::runTask(lock.acquire(stopped.get_token())), CancellationError);
    EXPECT_FALSE(lock.isHeld());

    start("a");
    EXPECT_THROW(test::runTask(lock.acquire(stopped.get_token())), CancellationError);
    EXPECT_TRUE(lock.isHeld());
    EXPECT_EQ(lock.waiterCount(), 0u);
}

TEST(FirstComeLockLifetimeTest, WaitersOfADestroyedLockEndCancelledAndALeaseMayOutliveIt) {
    auto lock = std::make_unique<FirstComeLock>();
    FirstComeLock::Lease lease = test::runTask(lock->acquire({}));
    bool cancelled = false;
    auto waiter = [](FirstComeLock& l, bool& flag) -> QCoro::Task<void> {
        try {
            (void)co_await l.acquire({});
        } catch (const CancellationError&) {
            flag = true;
        }
    };
    QCoro::Task<void> task = waiter(*lock, cancelled);
    lock.reset();
    EXPECT_TRUE(pumpUntil([&] { return cancelled; }));
    lease.release();
    EXPECT_FALSE(lease.isHeld());
}

} // namespace
} // namespace parlune
