#pragma once

// One token's activations laid out for the AVX-512 Q8_0 tiles (several tokens), prepared once per
// product with the activation codes instead of once per panel of rows.

#include <cstdint>

namespace parlune::llm::detail {

// One 64-column chunk: 16 lanes of 4 codes each, lanes 0-7 from the first 32-column block.
struct alignas(64) Q8TokenChunk {
    std::int8_t x[64]; // signed codes
    float dx[16];      // the lane's block scale
    float bias[16];    // (dx * -128) * (sum of the lane's 4 codes): cancels the 128 added to
                       // each weight code to make it unsigned
};

// Fills paddedCols / 64 chunks from one token's codes and per-32 scales. Every value is rounded
// as the kernels would round it in registers, so precomputing changes no result.
void prepareQ8TokenChunks(const std::int8_t* codes, const float* scales, std::int64_t paddedCols,
                          Q8TokenChunk* out);

} // namespace parlune::llm::detail
