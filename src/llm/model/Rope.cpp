#include "llm/model/Rope.h"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

namespace parlune::llm {

namespace {

// The rotated dimension at which a pair completes `rotations` turns over the original context.
double yarnCorrectionDim(double dims, double originalContext, double rotations, double base) {
    return dims * std::log(originalContext / (rotations * 2.0 * std::numbers::pi)) / (2.0 * std::log(base));
}

} // namespace

Rope::Rope(const ModelConfig& config, std::span<const float> frequencyFactors)
    : layout_(config.ropeLayout), headDim_(config.headDim) {
    const std::int64_t pairs = config.ropeDims / 2;
    const double dims = static_cast<double>(config.ropeDims);
    if (!frequencyFactors.empty() && static_cast<std::int64_t>(frequencyFactors.size()) != pairs) {
        throw std::invalid_argument("RoPE needs one frequency factor per rotated pair");
    }
    inverseFrequency_.resize(static_cast<std::size_t>(pairs));
    for (std::int64_t i = 0; i < pairs; ++i) {
        const auto pair = static_cast<std::size_t>(i);
        inverseFrequency_[pair] = std::pow(config.ropeFreqBase, -2.0 * static_cast<double>(i) / dims);
        if (!frequencyFactors.empty()) {
            inverseFrequency_[pair] /= static_cast<double>(frequencyFactors[pair]);
        }
    }
    const RopeScaling& scaling = config.ropeScaling;
    magnitude_ = scaling.attentionFactor;
    if (scaling.kind == RopeScalingKind::none) {
        return;
    }
    positionScale_ = 1.0 / scaling.factor;
    if (scaling.kind == RopeScalingKind::yarn) {
        // Low-frequency pairs are interpolated, high-frequency pairs keep their angle, with a
        // linear ramp between the two correction dimensions.
        const double context = static_cast<double>(scaling.originalContext);
        const double low = std::max(
            0.0, std::floor(yarnCorrectionDim(dims, context, scaling.betaFast, config.ropeFreqBase)));
        const double high = std::min(
            dims - 1.0, std::ceil(yarnCorrectionDim(dims, context, scaling.betaSlow, config.ropeFreqBase)));
        extrapolationMix_.resize(static_cast<std::size_t>(pairs));
        for (std::int64_t i = 0; i < pairs; ++i) {
            const double y = (static_cast<double>(i) - low) / std::max(0.001, high - low);
            extrapolationMix_[static_cast<std::size_t>(i)] = 1.0 - std::clamp(y, 0.0, 1.0);
        }
        magnitude_ *= 1.0 + 0.1 * std::log(scaling.factor);
    }
}

void Rope::angles(std::int64_t position, float* cosines, float* sines) const {
    const double p = static_cast<double>(position);
    for (std::size_t i = 0; i < inverseFrequency_.size(); ++i) {
        const double extrapolated = p * inverseFrequency_[i];
        double theta = extrapolated * positionScale_;
        if (!extrapolationMix_.empty()) {
            const double mix = extrapolationMix_[i];
            theta = theta * (1.0 - mix) + extrapolated * mix;
        }
        cosines[i] = static_cast<float>(std::cos(theta) * magnitude_);
        sines[i] = static_cast<float>(std::sin(theta) * magnitude_);
    }
}

void Rope::rotate(float* data, std::int64_t heads, const float* cosines, const float* sines) const {
    const std::int64_t pairs = pairCount();
    // The neox layout pairs dimension i with i + ropeDims/2.
    const std::int64_t partnerOffset = layout_ == RopeLayout::neox ? pairs : 1;
    const std::int64_t step = layout_ == RopeLayout::neox ? 1 : 2;
    for (std::int64_t h = 0; h < heads; ++h) {
        float* head = data + h * headDim_;
        for (std::int64_t i = 0; i < pairs; ++i) {
            float* a = head + i * step;
            float* b = a + partnerOffset;
            const float x0 = *a;
            const float x1 = *b;
            *a = x0 * cosines[i] - x1 * sines[i];
            *b = x0 * sines[i] + x1 * cosines[i];
        }
    }
}

} // namespace parlune::llm
