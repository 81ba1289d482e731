#pragma once

// Block codecs of the low-bit weight formats: Q2_K and Q3_K (2 and 3 bits with a scale per 16
// values, 256-value blocks) and the 4-bit formats on a non-uniform grid, IQ4_NL (32-value blocks)
// and IQ4_XS (256-value blocks with a 6-bit scale per 32 values). The helpers below are shared
// with the SIMD decoders.

#include <cstdint>
#include <cstring>

namespace parlune::llm::detail {

// Q4_K's and Q5_K's eight 6-bit scales and eight 6-bit minima (packed into bytes 4-15 of a block),
// one per byte.
inline void kQuantScaleBytes(const std::uint8_t* block, std::uint64_t& scales, std::uint64_t& minima) {
    std::uint32_t a, m, h;
    std::memcpy(&a, block + 4, 4);
    std::memcpy(&m, block + 8, 4);
    std::memcpy(&h, block + 12, 4);
    scales = (a & 0x3F3F3F3Fu) |
             static_cast<std::uint64_t>((h & 0x0F0F0F0Fu) | (((a >> 6) & 0x03030303u) << 4)) << 32;
    minima = (m & 0x3F3F3F3Fu) |
             static_cast<std::uint64_t>(((h >> 4) & 0x0F0F0F0Fu) | (((m >> 6) & 0x03030303u) << 4)) << 32;
}

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

// The same scales plus 32 (0..63), one per byte, for the SIMD decoders: Q3_K's sixteen in `first`
// (0-7) and `second` (8-15), IQ4_XS's eight in one word.
inline void q3kBiasedScales(const std::uint8_t* packed, std::uint64_t& first, std::uint64_t& second) {
    std::uint64_t low;
    std::uint32_t high;
    std::memcpy(&low, packed, 8);
    std::memcpy(&high, packed + 8, 4);
    const std::uint64_t bits03 = (high & 0x03030303u) | static_cast<std::uint64_t>((high >> 2) & 0x03030303u)
                                                            << 32;
    const std::uint64_t bits47 =
        ((high >> 4) & 0x03030303u) | static_cast<std::uint64_t>((high >> 6) & 0x03030303u) << 32;
    first = (low & 0x0F0F0F0F0F0F0F0Full) | (bits03 << 4);
    second = ((low >> 4) & 0x0F0F0F0F0F0F0F0Full) | (bits47 << 4);
}
inline std::uint64_t iq4xsBiasedScales(const std::uint8_t* block) {
    std::uint32_t lowBytes;
    std::uint16_t highBits;
    std::memcpy(&lowBytes, block + kIq4XsLowScales, 4);
    std::memcpy(&highBits, block + kIq4XsHighScales, 2);
    std::uint64_t low = lowBytes; // byte k -> 16-bit lane k, then its nibbles to bytes 2k, 2k+1
    low = (low | (low << 16)) & 0x0000FFFF0000FFFFull;
    low = (low | (low << 8)) & 0x00FF00FF00FF00FFull;
    low = (low & 0x000F000F000F000Full) | ((low >> 4) & 0x000F000F000F000Full) << 8;
    std::uint64_t high = highBits; // bit pair j -> byte j
    high = (high | (high << 24)) & 0x000000FF000000FFull;
    high = (high | (high << 12)) & 0x000F000F000F000Full;
    high = (high | (high << 6)) & 0x0303030303030303ull;
    return low | (high << 4);
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
