#pragma once

// One token's activations laid out for the one-token Q4_K and Q6_K kernels. Generation
// multiplies one token by every weight once, so decoding the weights to a buffer first would
// cost more than reading them from memory; those kernels decode each 256-column block straight
// into registers and take everything else from here, prepared once with the activation codes.

#include "llm/tensor/GgmlType.h"

#include <cstdint>

namespace parlune::llm::detail {

struct alignas(64) KQuantToken {
    // Activation codes of one 256-column block. Q4_K keeps sub-blocks 2j and 2j+1 in the low and
    // high nibbles of the same 32 bytes, so for 64-byte loads (low nibbles: sub-blocks [4h, 4h+2],
    // high: [4h+1, 4h+3]) its sub-block i sits at slot q4kSlot(i); Q6_K's are in column order.
    std::int8_t x[256];
    float a[16]; // Q4_K: dx of each 32-column sub-block, then dx * (sum of its codes)
                 // Q6_K: dx of each 16-column group
    float b[16]; // Q6_K: -32 * (sum of the group's codes); zero for Q4_K
};

constexpr int q4kSlot(int subBlock) {
    return 4 * (subBlock / 4) + 2 * (subBlock % 2) + (subBlock % 4) / 2;
}

// Fills `out` (cols / 256 blocks) from one token's codes and per-32 scales, for Q4_K or Q6_K.
void prepareKQuantTokens(GgmlType weightType, const std::int8_t* codes, const float* scales,
                         std::int64_t cols, KQuantToken* out);

} // namespace parlune::llm::detail
