#pragma once

// One token's activations laid out for the one-token Q4_K and Q6_K kernels. Generation
// multiplies one token by every weight once, so decoding the weights to a buffer first would
// cost more than reading them from memory; those kernels decode each 256-column block straight
// into registers and take everything else from here, prepared once with the activation codes.
// A block's codes share one scale (see quantizeSuperBlocks), so the whole block, every sub-block
// scale included, is one integer sum and costs one conversion and one multiply-add in floats.

#include "llm/tensor/GgmlType.h"

#include <cstdint>

namespace parlune::llm::detail {

struct alignas(64) KQuantToken {
    // Activation codes of one 256-column block, in [-127, 127]. Q4_K keeps sub-blocks 2j and 2j+1
    // in the low and high nibbles of the same 32 bytes, so for 64-byte loads (low nibbles:
    // sub-blocks [4h, 4h+2], high: [4h+1, 4h+3]) its sub-block i sits at slot q4kSlot(i); Q6_K's
    // are in column order.
    std::int8_t x[256];
    // Code sums of each scale group in column order: Q4_K's 8 sub-blocks of 32 (then zeros),
    // Q6_K's 16 groups of 16.
    std::int16_t sums[16];
    float dx; // the block's scale: x[i] * dx approximates the activation
};

constexpr int q4kSlot(int subBlock) {
    return 4 * (subBlock / 4) + 2 * (subBlock % 2) + (subBlock % 4) / 2;
}

// Fills `out` (cols / 256 blocks) from one token's codes and scales (one per 256 columns, repeated
// for each 32), for Q4_K or Q6_K weights.
void prepareKQuantTokens(GgmlType weightType, const std::int8_t* codes, const float* scales,
                         std::int64_t cols, KQuantToken* out);

} // namespace parlune::llm::detail
