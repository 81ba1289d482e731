#include "core/selection/PasteboardGuard.h"
#include "core/async/CancellationError.h"

#include "RunTask.h"

#include <gtest/gtest.h>

#include <vector>

namespace parlune::test {
namespace {

// Holds the guard from acquisition until `release` is set.
QCoro::Task<void> holder(PasteboardGuard& guard, int id, std::vector<int>& order, const bool& release,
                         std::stop_token token, bool* cancelled = nullptr) {
    try {
        PasteboardGuard::Lease lease = co_await guard.acquire(token);
        order.push_back(id);
        while (!release) {
            co_await yieldToEventLoop();
        }
    } catch (const CancellationError&) {
        if (cancelled) {
            *cancelled = true;
        }
    }
}

TEST(PasteboardGuardTest, FirstComeFirstServedWithHandOverAndCancellableWaits) {
    PasteboardGuard guard;
    std::vector<int> order;
    bool releaseAll = false;
    bool secondCancelled = false;
    std::stop_source stopSecond;

    QCoro::Task<void> first = holder(guard, 1, order, releaseAll, {});
    QCoro::Task<void> second = holder(guard, 2, order, releaseAll, stopSecond.get_token(), &secondCancelled);
    QCoro::Task<void> third = holder(guard, 3, order, releaseAll, {});
    EXPECT_EQ(order, std::vector<int>{1});
    EXPECT_EQ(guard.waiterCount(), 2u);

    stopSecond.request_stop();
    ASSERT_TRUE(pumpUntil([&] { return secondCancelled; }));
    EXPECT_EQ(guard.waiterCount(), 1u);

    releaseAll = true;
    pumpUntil([&] { return order.size() == 2 && !guard.isHeld(); });
    EXPECT_EQ(order, (std::vector<int>{1, 3}));
    EXPECT_FALSE(guard.isHeld());
}

TEST(PasteboardGuardTest, NoOneSlipsInBetweenReleaseAndTheWaitersResumption) {
    PasteboardGuard guard;
    std::vector<int> order;
    bool releaseFirst = false;
    bool releaseRest = false;
    QCoro::Task<void> first = holder(guard, 1, order, releaseFirst, {});
    QCoro::Task<void> second = holder(guard, 2, order, releaseRest, {});
    releaseFirst = true;
    // The first lets go on a later turn of the loop; the second resumes on a turn after that.
    pumpUntil([&] { return guard.waiterCount() == 0; });
    EXPECT_TRUE(guard.isHeld());
    QCoro::Task<void> late = holder(guard, 3, order, releaseRest, {});
    pumpUntil([&] { return order.size() >= 2; });
    EXPECT_EQ(order, (std::vector<int>{1, 2}));
    releaseRest = true;
    pumpUntil([&] { return order.size() == 3 && !guard.isHeld(); });
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

} // namespace
} // namespace parlune::test
