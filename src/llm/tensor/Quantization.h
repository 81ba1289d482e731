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
void quantizeRow(GgmlType type, const float* src, void* dst, std::int64_t n);

// Decodes one row of `n` elements of `type` to floats (same types and rules as quantizeRow).
void dequantizeRow(GgmlType type, const void* src, float* dst, std::int64_t n);

// True where quantizeRow/dequantizeRow accept `type`.
bool hasRowCodec(GgmlType type);

} // namespace parlune::llm
