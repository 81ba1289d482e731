#include "core/models/TransferRate.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(TransferRateTest, FollowsTheRecentSpeedAndEstimatesTheTimeLeft) {
    TransferRate rate(5.0);
    EXPECT_EQ(rate.secondsLeft(1000), std::nullopt);
    rate.record(0.0, 0);
    EXPECT_EQ(rate.bytesPerSecond(), 0.0);
    for (int second = 1; second <= 10; ++second) {
        rate.record(second, second * 1000LL);
    }
    EXPECT_DOUBLE_EQ(rate.bytesPerSecond(), 1000.0);
    // The speed triples: after a full window, only the new speed counts.
    for (int second = 11; second <= 16; ++second) {
        rate.record(second, 10'000 + (second - 10) * 3000LL);
    }
    EXPECT_DOUBLE_EQ(rate.bytesPerSecond(), 3000.0);
    EXPECT_DOUBLE_EQ(*rate.secondsLeft(6000), 2.0);
    EXPECT_DOUBLE_EQ(*rate.secondsLeft(-5), 0.0);
}

} // namespace
} // namespace parlune
