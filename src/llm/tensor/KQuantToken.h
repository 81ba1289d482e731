#pragma once

// Internal to the matrix product: one token against Q4_K or Q6_K rows. Generation multiplies
// one token by every weight once, so decoding the weights to a buffer first would cost more than
// reading them from memory; these kernels decode each 256-column block straight into registers.
// The token's activations are laid out for them once per product and shared by every row.

#include "llm/tensor/MatMul.h"

#include <cstdint>

namespace parlune::llm::detail {

struct alignas(64) KQuantToken {
    std::int8_t x[256]; // activation codes, in the order the kernel's code vectors come out
    float a[16];        // Q4_K: dx of each 32-column sub-block, then dx * (sum of its codes)
                        // Q6_K: dx of each 16-column group
    float b[16];        // Q6_K: -32 * (sum of the group's codes); unused for Q4_K
};

// The dot product of one row (`blocks` 256-column blocks) with the prepared token.
using KQuantRow = float (*)(const std::uint8_t* row, std::int64_t blocks, const KQuantToken* token);

struct OneTokenKQuantKernels {
    KQuantRow q4k;
    // Q4_K keeps sub-blocks 2j and 2j+1 in the low and high nibbles of the same 32 bytes. When
    // set, codes are ordered for 64-byte loads, whose low nibbles hold sub-blocks [4h, 4h+2] and
    // high nibbles [4h+1, 4h+3]; otherwise they stay in column order.
    bool q4kFourSubBlocksPerLoad;
    KQuantRow q6k;
};

// y[r] for rows [rowBegin, rowEnd) of a Q4_K or Q6_K matrix times the single token of `x`.
void oneTokenKQuantProduct(const OneTokenKQuantKernels& kernels, const WeightMatrix& w,
                           const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd, float* y);

} // namespace parlune::llm::detail
