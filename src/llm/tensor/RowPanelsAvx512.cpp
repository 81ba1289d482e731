// AVX-512 VNNI row panels (see RowPanels.h): sixteen rows per panel, VPDPBUSD sums.
#include "llm/tensor/LowBitCodecs.h"
#include "llm/tensor/MatMulKernels.h"
#include "llm/tensor/RowPanels.h"

#include <immintrin.h>

#include <cstring>

namespace parlune::llm::detail {

namespace {

// Unpacking like MatMulAvx512.cpp's. Shared through a header, these changed GCC 12's code for
// the one-token Q4_K kernel there (a fifth slower in L2), so each file keeps its own.

// The fp16 number at p.
inline float half(const std::uint8_t* p) {
    std::uint16_t h;
    std::memcpy(&h, p, 2);
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
    std::uint64_t sc, mn;
    kQuantScaleBytes(b, sc, mn);
    const __m512i both =
        _mm512_cvtepu8_epi32(_mm_set_epi64x(static_cast<long long>(mn), static_cast<long long>(sc)));
    const __m512 factors = pairLanes(half(b), -half(b + 2));
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

// The formats' block decoders (see RowPanels.h).

template <bool HighBits> struct KQuant {
    static constexpr int kGroupWidth = 32;
    static constexpr bool kMin = true;
    static constexpr std::int64_t kBlockBytes = HighBits ? 176 : 144;
    static void decode(const std::uint8_t* b, std::uint8_t* codes, float* extra) {
        _mm512_store_ps(extra, kScalesAndMinima(b));
        const std::uint8_t* qs = b + (HighBits ? 48 : 16);
        __m256i high = _mm256_setzero_si256();
        if constexpr (HighBits)
            high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 16));
        for (int c = 0; c < 4; ++c) {
            __m512i q = nibbleHalves(qs + 32 * c);
            if constexpr (HighBits)
                q = withFifthBits(q, high, c);
            _mm512_store_si512(codes + 64 * c, q);
        }
    }
};

struct Q6K {
    static constexpr int kGroupWidth = 16;
    static constexpr bool kMin = false;
    static constexpr std::int64_t kBlockBytes = 210;
    static void decode(const std::uint8_t* b, std::uint8_t* codes, float* extra) {
        const float d = half(b + 208);
        for (int g = 0; g < 16; ++g)
            extra[g] = d * static_cast<float>(static_cast<std::int8_t>(b[192 + g]));
        const __m512i low4 = _mm512_set1_epi8(0x0F);
        const __m512i low2 = _mm512_set1_epi8(3);
        for (int h = 0; h < 2; ++h) {
            const __m512i ql = _mm512_loadu_si512(b + 64 * h);
            const __m256i qh = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 128 + 32 * h));
            const __m512i hA = _mm512_inserti64x4(_mm512_zextsi256_si512(qh), _mm256_srli_epi16(qh, 2), 1);
            const __m512i hB = _mm512_srli_epi16(hA, 4);
            _mm512_store_si512(codes + 128 * h,
                               _mm512_or_si512(_mm512_and_si512(ql, low4),
                                               _mm512_slli_epi16(_mm512_and_si512(hA, low2), 4)));
            _mm512_store_si512(codes + 128 * h + 64,
                               _mm512_or_si512(_mm512_and_si512(_mm512_srli_epi16(ql, 4), low4),
                                               _mm512_slli_epi16(_mm512_and_si512(hB, low2), 4)));
        }
    }
};

// Eight consecutive Q8_0 blocks as one 256-column block: codes plus 128, a scale per block.
struct Q8Panel {
    static constexpr int kGroupWidth = 32;
    static constexpr bool kMin = false;
    static constexpr std::int64_t kBlockBytes = 8 * 34;
    static void decode(const std::uint8_t* b, std::uint8_t* codes, float* extra) {
        const __m256i flip = _mm256_set1_epi8(static_cast<char>(0x80));
        for (int g = 0; g < 8; ++g) {
            extra[g] = half(b + 34 * g);
            _mm256_store_si256(
                reinterpret_cast<__m256i*>(codes + 32 * g),
                _mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 34 * g + 2)), flip));
        }
    }
};

// m[i] = row i of a 16 x 16 matrix of 32-bit elements becomes column i.
void transpose16(__m512i (&m)[16]) {
    __m512i t[16];
    for (int i = 0; i < 8; ++i) {
        t[2 * i] = _mm512_unpacklo_epi32(m[2 * i], m[2 * i + 1]);
        t[2 * i + 1] = _mm512_unpackhi_epi32(m[2 * i], m[2 * i + 1]);
    }
    // c[q][j]: in 128-bit lane L, column 4L + j of rows 4q .. 4q + 3.
    __m512i c[4][4];
    for (int q = 0; q < 4; ++q) {
        c[q][0] = _mm512_unpacklo_epi64(t[4 * q], t[4 * q + 2]);
        c[q][1] = _mm512_unpackhi_epi64(t[4 * q], t[4 * q + 2]);
        c[q][2] = _mm512_unpacklo_epi64(t[4 * q + 1], t[4 * q + 3]);
        c[q][3] = _mm512_unpackhi_epi64(t[4 * q + 1], t[4 * q + 3]);
    }
    for (int j = 0; j < 4; ++j) {
        const __m512i u0 = _mm512_shuffle_i32x4(c[0][j], c[1][j], 0x44);
        const __m512i u1 = _mm512_shuffle_i32x4(c[0][j], c[1][j], 0xEE);
        const __m512i u2 = _mm512_shuffle_i32x4(c[2][j], c[3][j], 0x44);
        const __m512i u3 = _mm512_shuffle_i32x4(c[2][j], c[3][j], 0xEE);
        m[j] = _mm512_shuffle_i32x4(u0, u2, 0x88);
        m[4 + j] = _mm512_shuffle_i32x4(u0, u2, 0xDD);
        m[8 + j] = _mm512_shuffle_i32x4(u1, u3, 0x88);
        m[12 + j] = _mm512_shuffle_i32x4(u1, u3, 0xDD);
    }
}

struct Avx512Lanes {
    static constexpr int kLanes = 16;
    static constexpr int kTileTokens = 8;
    using Int = __m512i;
    using Float = __m512;
    using Q4_K = KQuant<false>;
    using Q5_K = KQuant<true>;
    using Q6_K = Q6K;

    static Int loadInt(const void* p) { return _mm512_load_si512(p); }
    static void storeInt(void* p, Int v) { _mm512_store_si512(p, v); }
    static Float loadFloat(const void* p) { return _mm512_load_ps(p); }
    static Int broadcastInt(std::int32_t v) { return _mm512_set1_epi32(v); }
    static Float broadcast(float v) { return _mm512_set1_ps(v); }
    static Float zero() { return _mm512_setzero_ps(); }
    static Int dot(Int acc, Int weights, Int activations) {
        return _mm512_dpbusd_epi32(acc, weights, activations);
    }
    static Float toFloat(Int v) { return _mm512_cvtepi32_ps(v); }
    static Float mul(Float a, Float b) { return _mm512_mul_ps(a, b); }
    static Float fma(Float a, Float b, Float c) { return _mm512_fmadd_ps(a, b, c); }
    static void storeRows(float* out, int rows, Float v) {
        _mm512_mask_storeu_ps(out, static_cast<__mmask16>((1u << rows) - 1), v);
    }
    static void transpose(Int (&m)[16]) { transpose16(m); }
};

} // namespace

void panelSumsAvx512(const std::int8_t* codes, const float* scales, std::int64_t paddedCols, int groupWidth,
                     std::int32_t offset, std::int32_t* bias, float* sums) {
    const __m512i flip = _mm512_set1_epi8(static_cast<char>(0x80));
    for (std::int64_t c = 0; c < paddedCols; c += 64) {
        // Sums of eight codes each, through their unsigned (+128) form.
        alignas(64) std::int64_t eights[8];
        _mm512_store_si512(
            eights, _mm512_sub_epi64(_mm512_sad_epu8(_mm512_xor_si512(_mm512_loadu_si512(codes + c), flip),
                                                     _mm512_setzero_si512()),
                                     _mm512_set1_epi64(8 * 128)));
        for (int h = 0; h < 4; ++h) {
            const auto sixteen = static_cast<std::int32_t>(eights[2 * h] + eights[2 * h + 1]);
            if (groupWidth == 16)
                bias[c / 16 + h] = -offset * sixteen;
            if (h % 2 == 1) {
                const auto block = static_cast<std::int32_t>(eights[2 * h - 2] + eights[2 * h - 1]) + sixteen;
                const std::int64_t b = c / 32 + h / 2;
                sums[b] = scales[b] * static_cast<float>(block);
                if (groupWidth == 32)
                    bias[b] = -offset * block;
            }
        }
    }
}

bool rowPanelProductAvx512(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                           std::int64_t rowEnd, float* y, std::int64_t ldy) {
    if (w.type == GgmlType::Q8_0 && x.hasPanelSums() && w.cols % 256 == 0 &&
        x.tokens() > ActivationBuffer::kMostRegisterTokens) {
        RowPanels<Avx512Lanes, Q8Panel>(w, x, y, ldy).run(rowBegin, rowEnd);
        return true;
    }
    return rowPanelProduct<Avx512Lanes>(w, x, rowBegin, rowEnd, y, ldy);
}

} // namespace parlune::llm::detail
