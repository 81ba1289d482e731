#pragma once

// Internal to the matrix product: the per-instruction-set kernels behind matmulRows. Each is
// compiled in its own file with its own target flags.

#include "llm/tensor/MatMul.h"

namespace parlune::llm::detail {

void matmulScalar(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, float* y, std::int64_t ldy);
void matmulAvx2(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                float* y, std::int64_t ldy);
void matmulAvx512(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, float* y, std::int64_t ldy);

// One token against Q4_K or Q6_K rows: `row` is one instruction set's dot product of a row
// (`blocks` 256-column blocks) with x.kquantTokens(); y[r] for rows [rowBegin, rowEnd).
using KQuantRow = float (*)(const std::uint8_t* row, std::int64_t blocks, const KQuantToken* token);
void oneTokenKQuantProduct(KQuantRow row, const WeightMatrix& w, const ActivationBuffer& x,
                           std::int64_t rowBegin, std::int64_t rowEnd, float* y);

// 8-bit activation codes for one token row: one scale per 32 values, codes in [-127, 127].
void quantizeActivationsScalar(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales);
void quantizeActivationsAvx512(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales);

} // namespace parlune::llm::detail
