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

// Pair layouts, position zero and linear scaling are checked against an independent forward pass
// (OracleTest, whose models use both layouts and linear scaling); YaRN only here.
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
