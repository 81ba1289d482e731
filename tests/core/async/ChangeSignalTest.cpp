#include "core/async/ChangeSignal.h"

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <vector>

namespace parlune {
namespace {

TEST(ChangeSignalTest, ObserversRunInConnectionOrderUntilDisconnected) {
    ChangeSignal<int> signal;
    std::vector<int> calls;
    Subscription first = signal.connect([&](int value) { calls.push_back(value * 10 + 1); });
    Subscription second = signal.connect([&](int value) { calls.push_back(value * 10 + 2); });
    signal.emit(1);
    first.reset();
    signal.emit(2);
    {
        Subscription moved = std::move(second);
        signal.emit(3);
    }
    signal.emit(4);
    EXPECT_EQ(calls, (std::vector<int>{11, 12, 22, 32}));
}

TEST(ChangeSignalTest, ObserversMayDisconnectThemselvesAndOthersWhileCalled) {
    ChangeSignal<> signal;
    std::vector<int> calls;
    std::optional<Subscription> later;
    Subscription self;
    self = signal.connect([&] {
        calls.push_back(1);
        self.reset();
        later.reset();
    });
    later = signal.connect([&] { calls.push_back(2); });
    Subscription added;
    Subscription adder = signal.connect([&] {
        calls.push_back(3);
        added = signal.connect([&] { calls.push_back(4); });
    });
    signal.emit();
    EXPECT_EQ(calls, (std::vector<int>{1, 3}));
    calls.clear();
    adder.reset();
    signal.emit();
    EXPECT_EQ(calls, (std::vector<int>{4}));
}

TEST(ChangeSignalTest, SubscriptionsMayOutliveTheSignal) {
    Subscription subscription;
    {
        auto signal = std::make_unique<ChangeSignal<>>();
        subscription = signal->connect([] {});
    }
    subscription.reset();
    SUCCEED();
}

} // namespace
} // namespace parlune
