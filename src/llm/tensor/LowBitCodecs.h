#pragma once

// Block codecs of the low-bit weight formats: Q2_K and Q3_K (2 and 3 bits with a scale per 16
// values, 256-value blocks) and the 4-bit formats on a non-uniform grid, IQ4_NL (32-value blocks)
// and IQ4_XS (256-value blocks with a 6-bit scale per 32 values). The helpers below are shared
// with the SIMD decoders.

#include <cstdint>

namespace parlune::llm::detail {

// The sixteen levels of the IQ4 grid; a 4-bit code indexes it.
inline constexpr std::int8_t kIq4Levels[16] = {-127, -104, -83, -65, -49, -35, -22, -10,
                                               1,    13,   25,  38,  53,  69,  89,  113};

// Byte offsets inside the blocks.
inline constexpr int kQ2KCodes = 16, kQ2KScale = 80, kQ2KMin = 82;
inline constexpr int kQ3KCodes = 32, kQ3KScales = 96, kQ3KScale = 108;
inline constexpr int kIq4XsHighScales = 2, kIq4XsLowScales = 4, kIq4XsCodes = 8;

// Q2_K and Q3_K keep value e's two low bits at byte 32 * (e / 128) + e % 32 of their codes, bit
// pair (e / 32) % 4; Q3_K's third bit is bit e / 32 of hmask byte e % 32.
constexpr int lowBitsByte(int e) {
    return 32 * (e / 128) + e % 32;
}
constexpr int lowBitsShift(int e) {
    return 2 * ((e / 32) % 4);
}

// Q3_K's sixteen signed 6-bit scales, packed into 12 bytes.
inline int q3kScale(const std::uint8_t* packed, int j) {
    const int low = j < 8 ? packed[j] & 0x0F : packed[j - 8] >> 4;
    const int high = (packed[8 + j % 4] >> (2 * (j / 4))) & 3;
    return (low | (high << 4)) - 32;
}

// IQ4_XS's signed 6-bit scale of sub-block j (32 values).
inline int iq4xsScale(const std::uint8_t* block, int j) {
    const int low = (block[kIq4XsLowScales + j / 2] >> (4 * (j % 2))) & 0x0F;
    const int high = ((block[kIq4XsHighScales] | (block[kIq4XsHighScales + 1] << 8)) >> (2 * j)) & 3;
    return (low | (high << 4)) - 32;
}

void quantizeQ2_K(const float* x, std::uint8_t* block);
void dequantizeQ2_K(const std::uint8_t* block, float* y);
void quantizeQ3_K(const float* x, std::uint8_t* block);
void dequantizeQ3_K(const std::uint8_t* block, float* y);
void quantizeIQ4_NL(const float* x, std::uint8_t* block);
void dequantizeIQ4_NL(const std::uint8_t* block, float* y);
void quantizeIQ4_XS(const float* x, std::uint8_t* block);
void dequantizeIQ4_XS(const std::uint8_t* block, float* y);

} // namespace parlune::llm::detail
