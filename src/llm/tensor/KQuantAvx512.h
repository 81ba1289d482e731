#pragma once

// Internal to the AVX-512 kernels (included only by files compiled with those flags): unpacking
// shared by the tiles and the row panels.

#include <immintrin.h>

#include <cstdint>

namespace parlune::llm::detail {

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
