#include "llm/model/Rope.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace parlune::llm {
namespace {

ModelConfig ropeConfig(RopeLayout layout) {
    ModelConfig config;
    config.headDim = 8;
    config.ropeDims = 8;
    config.ropeFreqBase = 10000.0;
    config.ropeLayout = layout;
    return config;
}

std::vector<float> rotated(const Rope& rope, std::int64_t position, std::vector<float> head) {
    std::vector<float> cosines(4), sines(4);
    rope.angles(position, cosines.data(), sines.data());
    rope.rotate(head.data(), 1, cosines.data(), sines.data());
    return head;
}

TEST(Rope, PairsDimensionsByLayout) {
    // Only dimension 1 set: the normal layout rotates it with dimension 0 by the fastest
    // frequency; the neox layout rotates it with dimension 5 by the second frequency.
    const std::vector<float> unit = {0, 1, 0, 0, 0, 0, 0, 0};
    const double theta1 = 3.0 * std::pow(10000.0, -2.0 / 8.0);
    const auto normal = rotated(Rope(ropeConfig(RopeLayout::normal)), 3, unit);
    EXPECT_NEAR(normal[0], -std::sin(3.0), 1e-6);
    EXPECT_NEAR(normal[1], std::cos(3.0), 1e-6);
    EXPECT_EQ(normal[5], 0.0f);
    const auto neox = rotated(Rope(ropeConfig(RopeLayout::neox)), 3, unit);
    EXPECT_NEAR(neox[1], std::cos(theta1), 1e-6);
    EXPECT_NEAR(neox[5], std::sin(theta1), 1e-6);
    EXPECT_EQ(neox[0], 0.0f);
}

TEST(Rope, PositionZeroIsIdentityAndNormsArePreserved) {
    const std::vector<float> head = {0.5f, -1, 2, 0.25f, 3, -0.75f, 1, 1};
    for (const RopeLayout layout : {RopeLayout::normal, RopeLayout::neox}) {
        const Rope rope(ropeConfig(layout));
        EXPECT_EQ(rotated(rope, 0, head), head);
        const auto far = rotated(rope, 5000, head);
        double before = 0, after = 0;
        for (std::size_t i = 0; i < head.size(); ++i) {
            before += head[i] * head[i];
            after += far[i] * far[i];
        }
        EXPECT_NEAR(before, after, 1e-4);
    }
}

TEST(Rope, LinearScalingDividesPositions) {
    ModelConfig scaled = ropeConfig(RopeLayout::neox);
    scaled.ropeScaling.kind = RopeScalingKind::linear;
    scaled.ropeScaling.factor = 4.0;
    const std::vector<float> head = {1, 2, 3, 4, 5, 6, 7, 8};
    const auto a = rotated(Rope(scaled), 12, head);
    const auto b = rotated(Rope(ropeConfig(RopeLayout::neox)), 3, head);
    for (std::size_t i = 0; i < head.size(); ++i) {
        EXPECT_NEAR(a[i], b[i], 1e-5);
    }
}

TEST(Rope, YarnKeepsFastPairsAndInterpolatesSlowOnes) {
    ModelConfig config = ropeConfig(RopeLayout::neox);
    config.headDim = config.ropeDims = 64;
    config.ropeScaling = {RopeScalingKind::yarn, 8.0, 256, 1.0, 32.0, 1.0};
    const Rope yarn(config);
    std::vector<float> cosines(32), sines(32);
    yarn.angles(100, cosines.data(), sines.data());
    const double magnitude = 1.0 + 0.1 * std::log(8.0);
    // Pair 0 turns fastest: extrapolated (unscaled angle), only the magnitude changes.
    EXPECT_NEAR(cosines[0], std::cos(100.0) * magnitude, 1e-5);
    // The slowest pair is fully interpolated: angle divided by the factor.
    const double slowest = 100.0 * std::pow(10000.0, -62.0 / 64.0) / 8.0;
    EXPECT_NEAR(sines[31], std::sin(slowest) * magnitude, 1e-6);
}

} // namespace
} // namespace parlune::llm
