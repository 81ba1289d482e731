// AVX2 row panels (see RowPanels.h): eight rows per panel; without VNNI a group's sums take
// VPMADDUBSW (whose 16-bit pair sums cannot saturate: codes stay below 64, activations within
// +-127) and VPMADDWD.
#include "llm/tensor/LowBitCodecs.h"
#include "llm/tensor/MatMulKernels.h"
#include "llm/tensor/RowPanels.h"

#include <immintrin.h>

#include <cstring>

namespace parlune::llm::detail {

namespace {

// The fp16 number at p.
float half(const std::uint8_t* p) {
    std::uint16_t h;
    std::memcpy(&h, p, 2);
    return _cvtsh_ss(h);
}

// The formats' block decoders (see RowPanels.h).

template <bool HighBits> struct KQuant {
    static constexpr int kGroupWidth = 32;
    static constexpr bool kMin = true;
    static constexpr std::int64_t kBlockBytes = HighBits ? 176 : 144;
    static void decode(const std::uint8_t* b, std::uint8_t* codes, float* extra) {
        std::uint64_t scales, minima;
        kQuantScaleBytes(b, scales, minima);
        const __m256 d = _mm256_set1_ps(half(b));
        const __m256 dmin = _mm256_set1_ps(-half(b + 2));
        const auto widen = [](std::uint64_t bytes) {
            return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(static_cast<long long>(bytes))));
        };
        _mm256_store_ps(extra, _mm256_mul_ps(widen(scales), d));
        _mm256_store_ps(extra + 8, _mm256_mul_ps(widen(minima), dmin));
        const std::uint8_t* qs = b + (HighBits ? 48 : 16);
        const __m256i low4 = _mm256_set1_epi8(0x0F);
        const __m256i one = _mm256_set1_epi8(1);
        __m256i high = _mm256_setzero_si256();
        if constexpr (HighBits)
            high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 16));
        for (int c = 0; c < 4; ++c) {
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(qs + 32 * c));
            __m256i lo = _mm256_and_si256(v, low4);
            __m256i hi = _mm256_and_si256(_mm256_srli_epi16(v, 4), low4);
            if constexpr (HighBits) {
                // Bit 2c (2c + 1) of each high byte is the fifth bit of the low (high) nibbles.
                const auto fifth = [&](int bit) {
                    return _mm256_slli_epi16(
                        _mm256_and_si256(_mm256_srl_epi16(high, _mm_cvtsi32_si128(bit)), one), 4);
                };
                lo = _mm256_or_si256(lo, fifth(2 * c));
                hi = _mm256_or_si256(hi, fifth(2 * c + 1));
            }
            _mm256_store_si256(reinterpret_cast<__m256i*>(codes + 64 * c), lo);
            _mm256_store_si256(reinterpret_cast<__m256i*>(codes + 64 * c + 32), hi);
        }
    }
};

struct Q6K {
    static constexpr int kGroupWidth = 16;
    static constexpr bool kMin = false;
    static constexpr std::int64_t kBlockBytes = 210;
    static void decode(const std::uint8_t* b, std::uint8_t* codes, float* extra) {
        const __m256 d = _mm256_set1_ps(half(b + 208));
        for (int half = 0; half < 2; ++half) {
            const __m128i eight = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(b + 192 + 8 * half));
            _mm256_store_ps(extra + 8 * half,
                            _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(eight)), d));
        }
        const __m256i low4 = _mm256_set1_epi8(0x0F);
        const __m256i low2 = _mm256_set1_epi8(3);
        // Codes 32q + l of a 128-column half: nibble q / 2 of ql[l + 32 (q % 2)], bits 2q of qh[l].
        for (int h = 0; h < 2; ++h) {
            const __m256i ql[2] = {_mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 64 * h)),
                                   _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 64 * h + 32))};
            const __m256i qh = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 128 + 32 * h));
            for (int q = 0; q < 4; ++q) {
                const __m256i nibbles =
                    _mm256_and_si256(_mm256_srl_epi16(ql[q % 2], _mm_cvtsi32_si128(4 * (q / 2))), low4);
                const __m256i top = _mm256_and_si256(_mm256_srl_epi16(qh, _mm_cvtsi32_si128(2 * q)), low2);
                _mm256_store_si256(reinterpret_cast<__m256i*>(codes + 128 * h + 32 * q),
                                   _mm256_or_si256(nibbles, _mm256_slli_epi16(top, 4)));
            }
        }
    }
};

// m[i] = row i of an 8 x 8 matrix of 32-bit elements becomes column i.
void transpose8(__m256i (&m)[8]) {
    __m256i t[8];
    for (int i = 0; i < 4; ++i) {
        t[2 * i] = _mm256_unpacklo_epi32(m[2 * i], m[2 * i + 1]);
        t[2 * i + 1] = _mm256_unpackhi_epi32(m[2 * i], m[2 * i + 1]);
    }
    // c[q][j]: in 128-bit lane L, column 4L + j of rows 4q .. 4q + 3.
    __m256i c[2][4];
    for (int q = 0; q < 2; ++q) {
        c[q][0] = _mm256_unpacklo_epi64(t[4 * q], t[4 * q + 2]);
        c[q][1] = _mm256_unpackhi_epi64(t[4 * q], t[4 * q + 2]);
        c[q][2] = _mm256_unpacklo_epi64(t[4 * q + 1], t[4 * q + 3]);
        c[q][3] = _mm256_unpackhi_epi64(t[4 * q + 1], t[4 * q + 3]);
    }
    for (int j = 0; j < 4; ++j) {
        m[j] = _mm256_permute2x128_si256(c[0][j], c[1][j], 0x20);
        m[4 + j] = _mm256_permute2x128_si256(c[0][j], c[1][j], 0x31);
    }
}

struct Avx2Lanes {
    static constexpr int kLanes = 8;
    static constexpr int kTileTokens = 4; // sixteen registers
    using Int = __m256i;
    using Float = __m256;
    using Q4_K = KQuant<false>;
    using Q5_K = KQuant<true>;
    using Q6_K = Q6K;

    static Int loadInt(const void* p) { return _mm256_load_si256(static_cast<const __m256i*>(p)); }
    static void storeInt(void* p, Int v) { _mm256_store_si256(static_cast<__m256i*>(p), v); }
    static Float loadFloat(const void* p) { return _mm256_load_ps(static_cast<const float*>(p)); }
    static Int broadcastInt(std::int32_t v) { return _mm256_set1_epi32(v); }
    static Float broadcast(float v) { return _mm256_set1_ps(v); }
    static Float zero() { return _mm256_setzero_ps(); }
    static Int dot(Int acc, Int weights, Int activations) {
        const __m256i pairs = _mm256_maddubs_epi16(weights, activations);
        return _mm256_add_epi32(acc, _mm256_madd_epi16(pairs, _mm256_set1_epi16(1)));
    }
    static Float toFloat(Int v) { return _mm256_cvtepi32_ps(v); }
    static Float mul(Float a, Float b) { return _mm256_mul_ps(a, b); }
    static Float fma(Float a, Float b, Float c) { return _mm256_fmadd_ps(a, b, c); }
    static void storeRows(float* out, int rows, Float v) {
        const __m256i lane = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
        _mm256_maskstore_ps(out, _mm256_cmpgt_epi32(_mm256_set1_epi32(rows), lane), v);
    }
    static void transpose(Int (&m)[8]) { transpose8(m); }
};

} // namespace

bool rowPanelProductAvx2(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                         std::int64_t rowEnd, float* y, std::int64_t ldy) {
    return rowPanelProduct<Avx2Lanes>(w, x, rowBegin, rowEnd, y, ldy);
}

} // namespace parlune::llm::detail
