#pragma once

// Internal to the AVX-512 kernels (included only by files compiled with those flags): unpacking
// shared by the tiles and the row panels.

#include "llm/tensor/LowBitCodecs.h"

#include <immintrin.h>

#include <cstdint>

namespace parlune::llm::detail {

inline float fp16ToFloatFast(std::uint16_t h) {
    return _cvtsh_ss(h);
}

// [a x8, b x8]
inline __attribute__((always_inline)) __m512 pairLanes(float a, float b) {
    return _mm512_castpd_ps(
        _mm512_insertf64x4(_mm512_castps_pd(_mm512_set1_ps(a)), _mm256_castps_pd(_mm256_set1_ps(b)), 1));
}

// The eight 6-bit scales and minima of a Q4_K or Q5_K block as floats: lanes 0-7 d * scale, lanes
// 8-15 -dmin * min, unpacked four at a time in general registers.
inline __attribute__((always_inline)) __m512 kScalesAndMinima(const std::uint8_t* b) {
    const std::uint32_t a = u32(b + 4), m = u32(b + 8), h = u32(b + 12);
    const std::uint64_t sc =
        (a & 0x3F3F3F3Fu) | static_cast<std::uint64_t>((h & 0x0F0F0F0Fu) | (((a >> 6) & 0x03030303u) << 4))
                                << 32;
    const std::uint64_t mn =
        (m & 0x3F3F3F3Fu) |
        static_cast<std::uint64_t>(((h >> 4) & 0x0F0F0F0Fu) | (((m >> 6) & 0x03030303u) << 4)) << 32;
    const __m512i both =
        _mm512_cvtepu8_epi32(_mm_set_epi64x(static_cast<long long>(mn), static_cast<long long>(sc)));
    const __m512 factors = pairLanes(fp16ToFloatFast(u16(b)), -fp16ToFloatFast(u16(b + 2)));
    return _mm512_mul_ps(_mm512_cvtepi32_ps(both), factors);
}

// 32 nibbles of one 32-byte group: [low nibbles, high nibbles].
inline __m512i nibbleHalves(const std::uint8_t* p) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    const __m256i mask = _mm256_set1_epi8(0x0F);
    return _mm512_inserti64x4(_mm512_zextsi256_si512(_mm256_and_si256(v, mask)),
                              _mm256_and_si256(_mm256_srli_epi16(v, 4), mask), 1);
}

// Q5_K's fifth bits (`high`, 32 bytes) added to the nibbles of 64-column chunk c of its block.
inline __m512i withFifthBits(__m512i q, __m256i high, int c) {
    const std::uint64_t lo = _mm256_test_epi8_mask(high, _mm256_set1_epi8(static_cast<char>(1 << (2 * c))));
    const std::uint64_t hi =
        _mm256_test_epi8_mask(high, _mm256_set1_epi8(static_cast<char>(1 << (2 * c + 1))));
    return _mm512_mask_add_epi8(q, lo | (hi << 32), q, _mm512_set1_epi8(0x10));
}

} // namespace parlune::llm::detail
