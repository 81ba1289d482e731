#pragma once

#include "llm/tensor/GgmlType.h"

#include <cstdint>

namespace parlune::llm {

// Half-precision conversions (IEEE binary16 with round-to-nearest-even; bfloat16 keeps the top
// 16 bits of a float, rounded to nearest even, NaN kept quiet).
float fp16ToFloat(std::uint16_t half);
std::uint16_t floatToFp16(float value);
float bf16ToFloat(std::uint16_t value);
std::uint16_t floatToBf16(float value);

// Encodes `n` floats as one row of `type`, in the block layouts GGUF files use. `n` must be a
// whole number of the type's blocks. Supported: every weight type, plus Q8_K (the 8-bit
// activation format of the K-quants). Throws std::invalid_argument otherwise.
//
// Round to nearest with each format's scale rules; the K-quants fit every sub-block's scale and
// minimum by a small least-squares search, the IQ4 formats their scale on the grid likewise.
// Normalised mean squared error on N(0, 1) rows:
//   F16 4.3e-8  BF16 2.7e-6  Q8_0 2.8e-5  Q8_K 4.8e-5  Q6_K 3.5e-4  Q5_K 1.3e-3  Q5_1 1.4e-3
//   Q5_0 1.8e-3  Q4_K 5.1e-3  IQ4_NL 5.3e-3  IQ4_XS 5.4e-3  Q4_1 6.1e-3  Q4_0 7.3e-3
//   Q3_K 2.4e-2  Q2_K 7.2e-2
void quantizeRow(GgmlType type, const float* src, void* dst, std::int64_t n);

// Decodes one row of `n` elements of `type` to floats (same types and rules as quantizeRow).
void dequantizeRow(GgmlType type, const void* src, float* dst, std::int64_t n);

// True where quantizeRow/dequantizeRow accept `type`.
bool hasRowCodec(GgmlType type);

} // namespace parlune::llm
