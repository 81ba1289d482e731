#pragma once

// Internal to the matrix product: the per-instruction-set kernels behind matmulRows. Each is
// compiled in its own file with its own target flags.

#include "llm/tensor/MatMul.h"

#include <span>

namespace parlune::llm::detail {

void matmulScalar(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, float* y, std::int64_t ldy);
void matmulAvx2(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                float* y, std::int64_t ldy);
void matmulAvx512(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, float* y, std::int64_t ldy);

// A few tokens against Q4_K or Q6_K rows. `group[n - 1]` is one instruction set's dot products of
// a row (`blocks` 256-column blocks) with n tokens' x.kquantTokens(t), each token rounded exactly as
// when it is alone; the tokens go through in groups of group.size(). y[t * ldy + r] for rows
// [rowBegin, rowEnd).
using KQuantRows = void (*)(const std::uint8_t* row, std::int64_t blocks, const KQuantToken* const* tokens,
                            float* out);
void registerKQuantProduct(std::span<const KQuantRows> group, const WeightMatrix& w,
                           const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd, float* y,
                           std::int64_t ldy);

// Prompt-sized batches (x.hasPanelSums()) of Q4_K, Q5_K or Q6_K rows, and of Q8_0 rows of whole
// 256-column groups, through row panels; false, doing nothing, for anything else.
bool rowPanelProductAvx512(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                           std::int64_t rowEnd, float* y, std::int64_t ldy);
bool rowPanelProductAvx2(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                         std::int64_t rowEnd, float* y, std::int64_t ldy);

// The panels' per-token sums (see ActivationBuffer::groupBias and scaledBlockSums) of one token's
// codes and block scales, `groupWidth` 16 or 32.
void panelSumsScalar(const std::int8_t* codes, const float* scales, std::int64_t paddedCols, int groupWidth,
                     std::int32_t offset, std::int32_t* bias, float* sums);
void panelSumsAvx512(const std::int8_t* codes, const float* scales, std::int64_t paddedCols, int groupWidth,
                     std::int32_t offset, std::int32_t* bias, float* sums);

// 8-bit activation codes for one token row: one scale per 32 values, codes in [-127, 127].
void quantizeActivationsScalar(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales);
void quantizeActivationsAvx512(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales);
// The same for weights in 256-column super-blocks (cols a multiple of 256): one scale per 256
// values, written to each of its eight 32-value blocks, so one-token kernels can take a whole
// super-block as one integer sum and every other kernel reads the codes as usual.
void quantizeSuperBlocksScalar(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales);
void quantizeSuperBlocksAvx512(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales);

} // namespace parlune::llm::detail
