#pragma once

#include "llm/model/ModelConfig.h"

#include <cstdint>
#include <span>
#include <vector>

namespace parlune::llm {

// Rotary position embedding of one model: the frequencies of each rotated pair, the linear or
// yarn context scaling, and the pairing layout. Angles are computed in double precision.
class Rope {
public:
    // `frequencyFactors`, when given (one per pair, as Llama 3.x files store them in
    // `rope_freqs.weight`), divide each pair's rotation frequency.
    explicit Rope(const ModelConfig& config, std::span<const float> frequencyFactors = {});

    std::int64_t pairCount() const { return static_cast<std::int64_t>(inverseFrequency_.size()); }

    // cos and sin (pairCount() each) of every pair's angle at `position`.
    void angles(std::int64_t position, float* cosines, float* sines) const;

    // Rotates `heads` consecutive heads of headDim floats in place with precomputed angles.
    void rotate(float* data, std::int64_t heads, const float* cosines, const float* sines) const;

private:
    RopeLayout layout_;
    std::int64_t headDim_;
    std::vector<double> inverseFrequency_;
    std::vector<double> extrapolationMix_; // yarn: weight of the unscaled frequency per pair
    double positionScale_ = 1.0;
    double magnitude_ = 1.0;
};

} // namespace parlune::llm
