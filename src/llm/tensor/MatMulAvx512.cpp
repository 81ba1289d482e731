// AVX-512 (F, BW, VL, VNNI) path. Quantised weights are decoded, a few 64-column chunks at a
// time, into signed 8-bit codes with per-4-code float scales; activations are 8-bit codes shifted
// to unsigned so VPDPBUSD multiplies them, and the shift is undone with a per-lane correction
// computed at decode time. Each decoded chunk is reused across a tile of tokens from L1/L2.
#include "llm/tensor/MatMulKernels.h"
#include "llm/tensor/Quantization.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace parlune::llm::detail {

namespace {

constexpr std::int64_t kChunk = 64;     // columns per decoded chunk
constexpr int kRowTile = 4;             // weight rows per register tile
constexpr int kTokenTile = 4;           // tokens per register tile
constexpr std::int64_t kStreamChunks = 16; // chunks decoded at a time when streaming rows (multiple of 4)
constexpr std::int64_t kPanelRows = 16; // rows decoded whole before being reused by many tokens

struct alignas(64) Decoded {
    std::int8_t q[64]; // signed codes with the format's offset removed
    float ws[16];      // scale of each group of 4 codes
    float cw[16];      // -128 * ws * (sum of those 4 codes): undoes the activation shift
    float mw[16];      // additive offset per element (formats with a minimum)
};

std::uint16_t u16(const std::uint8_t* p) {
    std::uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
std::uint32_t u32(const std::uint8_t* p) {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

inline float fp16ToFloatFast(std::uint16_t h) { return _cvtsh_ss(h); }

// [a x8, b x8]
__m512 pairLanes(float a, float b) {
    return _mm512_castpd_ps(
        _mm512_insertf64x4(_mm512_castps_pd(_mm512_set1_ps(a)), _mm256_castps_pd(_mm256_set1_ps(b)), 1));
}
__m512 pairHalves(const std::uint8_t* p0, const std::uint8_t* p1) {
    return pairLanes(fp16ToFloatFast(u16(p0)), p1 ? fp16ToFloatFast(u16(p1)) : 0.0f);
}

template <bool Asym>
inline void finish(Decoded& o, __m512i q, __m512 ws, __m512 mw) {
    _mm512_store_si512(o.q, q);
    _mm512_store_ps(o.ws, ws);
    const __m512i sums = _mm512_dpbusd_epi32(_mm512_setzero_si512(), _mm512_set1_epi8(1), q);
    _mm512_store_ps(o.cw, _mm512_mul_ps(_mm512_mul_ps(ws, _mm512_cvtepi32_ps(sums)), _mm512_set1_ps(-128.0f)));
    if constexpr (Asym) _mm512_store_ps(o.mw, mw);
}

// 32 nibbles of each of two 16-byte groups, in element order: [p0 low, p0 high, p1 low, p1 high].
__m512i nibblePairs(const std::uint8_t* p0, const std::uint8_t* p1) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p0));
    const __m128i b = p1 ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(p1)) : _mm_setzero_si128();
    const __m256i v = _mm256_inserti128_si256(_mm256_zextsi128_si256(a), b, 1);
    const __m256i mask = _mm256_set1_epi8(0x0F);
    const __m512i z = _mm512_inserti64x4(_mm512_zextsi256_si512(_mm256_and_si256(v, mask)),
                                         _mm256_and_si256(_mm256_srli_epi16(v, 4), mask), 1);
    return _mm512_shuffle_i64x2(z, z, _MM_SHUFFLE(3, 1, 2, 0));
}
// 32 nibbles of one 32-byte group: [low nibbles, high nibbles].
__m512i nibbleHalves(const std::uint8_t* p) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p));
    const __m256i mask = _mm256_set1_epi8(0x0F);
    return _mm512_inserti64x4(_mm512_zextsi256_si512(_mm256_and_si256(v, mask)),
                              _mm256_and_si256(_mm256_srli_epi16(v, 4), mask), 1);
}

// ---- decoders: chunks [c0, c1) of one row -------------------------------------------------

struct Q8_0 {
    static constexpr bool asym = false;
    static void decode(const std::uint8_t* row, std::int64_t nb, std::int64_t c0, std::int64_t c1, Decoded* out) {
        for (std::int64_t c = c0; c < c1; ++c) {
            const std::uint8_t* p0 = row + 34 * (2 * c);
            const bool two = 2 * c + 1 < nb;
            const std::uint8_t* p1 = two ? p0 + 34 : nullptr;
            const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p0 + 2));
            const __m256i b = two ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p1 + 2)) : _mm256_setzero_si256();
            finish<false>(out[c - c0], _mm512_inserti64x4(_mm512_zextsi256_si512(a), b, 1), pairHalves(p0, p1),
                          _mm512_setzero_ps());
        }
    }
};

template <int Bytes, int DataOffset, bool HasMin, bool HasHigh>
struct SmallBlock {
    static constexpr bool asym = HasMin;
    static void decode(const std::uint8_t* row, std::int64_t nb, std::int64_t c0, std::int64_t c1, Decoded* out) {
        for (std::int64_t c = c0; c < c1; ++c) {
            const std::uint8_t* p0 = row + Bytes * (2 * c);
            const std::uint8_t* p1 = 2 * c + 1 < nb ? p0 + Bytes : nullptr;
            __m512i q = nibblePairs(p0 + DataOffset, p1 ? p1 + DataOffset : nullptr);
            if constexpr (HasHigh) {
                constexpr int hOff = HasMin ? 4 : 2;
                const std::uint64_t bits = u32(p0 + hOff) | (p1 ? static_cast<std::uint64_t>(u32(p1 + hOff)) << 32 : 0);
                q = _mm512_mask_add_epi8(q, bits, q, _mm512_set1_epi8(0x10));
            }
            if constexpr (HasMin) {
                const __m512 m = pairLanes(fp16ToFloatFast(u16(p0 + 2)), p1 ? fp16ToFloatFast(u16(p1 + 2)) : 0.0f);
                finish<true>(out[c - c0], q, pairHalves(p0, p1), m);
            } else {
                const int offset = HasHigh ? 16 : 8;
                finish<false>(out[c - c0], _mm512_sub_epi8(q, _mm512_set1_epi8(static_cast<char>(offset))),
                              pairHalves(p0, p1), _mm512_setzero_ps());
            }
        }
    }
};
using Q4_0 = SmallBlock<18, 2, false, false>;
using Q4_1 = SmallBlock<20, 4, true, false>;
using Q5_0 = SmallBlock<22, 6, false, true>;
using Q5_1 = SmallBlock<24, 8, true, true>;

void kScales(const std::uint8_t* b, float d, float dmin, float* sc, float* mn) {
    const std::uint8_t* q = b + 4;
    for (int j = 0; j < 8; ++j) {
        int s, m;
        if (j < 4) {
            s = q[j] & 63;
            m = q[j + 4] & 63;
        } else {
            s = (q[j + 4] & 0x0F) | ((q[j - 4] >> 6) << 4);
            m = (q[j + 4] >> 4) | ((q[j] >> 6) << 4);
        }
        sc[j] = d * static_cast<float>(s);
        mn[j] = -dmin * static_cast<float>(m);
    }
}
__m512i pairIndex(int j) {
    return _mm512_inserti64x4(_mm512_zextsi256_si512(_mm256_set1_epi32(j)), _mm256_set1_epi32(j + 1), 1);
}

template <bool HighBits>
struct KQuant {
    static constexpr bool asym = true;
    static constexpr std::int64_t kBytes = HighBits ? 176 : 144;
    static void decode(const std::uint8_t* row, std::int64_t, std::int64_t c0, std::int64_t c1, Decoded* out) {
        for (std::int64_t s = c0 / 4; s < c1 / 4; ++s) {
            const std::uint8_t* b = row + kBytes * s;
            alignas(32) float sc[8], mn[8];
            kScales(b, fp16ToFloatFast(u16(b)), fp16ToFloatFast(u16(b + 2)), sc, mn);
            const __m512 scv = _mm512_zextps256_ps512(_mm256_load_ps(sc));
            const __m512 mnv = _mm512_zextps256_ps512(_mm256_load_ps(mn));
            const std::uint8_t* qs = b + (HighBits ? 48 : 16);
            __m256i high = _mm256_setzero_si256();
            if constexpr (HighBits) high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 16));
            for (int c = 0; c < 4; ++c) {
                __m512i q = nibbleHalves(qs + 32 * c);
                if constexpr (HighBits) {
                    const std::uint64_t lo = _mm256_test_epi8_mask(high, _mm256_set1_epi8(static_cast<char>(1 << (2 * c))));
                    const std::uint64_t hi =
                        _mm256_test_epi8_mask(high, _mm256_set1_epi8(static_cast<char>(1 << (2 * c + 1))));
                    q = _mm512_mask_add_epi8(q, lo | (hi << 32), q, _mm512_set1_epi8(0x10));
                }
                const __m512i idx = pairIndex(2 * c);
                finish<true>(out[4 * s + c - c0], q, _mm512_permutexvar_ps(idx, scv), _mm512_permutexvar_ps(idx, mnv));
            }
        }
    }
};
using Q4_K = KQuant<false>;
using Q5_K = KQuant<true>;

struct Q6_K {
    static constexpr bool asym = false;
    static void decode(const std::uint8_t* row, std::int64_t, std::int64_t c0, std::int64_t c1, Decoded* out) {
        const __m512i low4 = _mm512_set1_epi8(0x0F);
        const __m512i low2 = _mm512_set1_epi8(3);
        const __m512i bias = _mm512_set1_epi8(32);
        for (std::int64_t s = c0 / 4; s < c1 / 4; ++s) {
            const std::uint8_t* b = row + 210 * s;
            const float d = fp16ToFloatFast(u16(b + 208));
            const __m512 scales = _mm512_mul_ps(
                _mm512_set1_ps(d),
                _mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 192)))));
            for (int h = 0; h < 2; ++h) {
                const __m512i ql = _mm512_loadu_si512(b + 64 * h);
                const __m256i qh = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 128 + 32 * h));
                const __m512i hA = _mm512_inserti64x4(_mm512_zextsi256_si512(qh), _mm256_srli_epi16(qh, 2), 1);
                const __m512i hB = _mm512_srli_epi16(hA, 4);
                const __m512i qa = _mm512_or_si512(_mm512_and_si512(ql, low4),
                                                   _mm512_slli_epi16(_mm512_and_si512(hA, low2), 4));
                const __m512i qb = _mm512_or_si512(_mm512_and_si512(_mm512_srli_epi16(ql, 4), low4),
                                                   _mm512_slli_epi16(_mm512_and_si512(hB, low2), 4));
                for (int part = 0; part < 2; ++part) {
                    const int chunk = 2 * h + part; // 16-element scale groups 4*chunk .. 4*chunk+3
                    const __m512i idx = _mm512_add_epi32(_mm512_set1_epi32(4 * chunk),
                                                         _mm512_srli_epi32(_mm512_set_epi32(15, 14, 13, 12, 11, 10, 9, 8, 7, 6,
                                                                                            5, 4, 3, 2, 1, 0),
                                                                           2));
                    finish<false>(out[4 * s + chunk - c0], _mm512_sub_epi8(part ? qb : qa, bias),
                                  _mm512_permutexvar_ps(idx, scales), _mm512_setzero_ps());
                }
            }
        }
    }
};

// ---- tiles -----------------------------------------------------------------------------------

struct TokenView {
    const std::int8_t* codes;
    const float* scales;
};

template <bool Asym, int R, int T>
inline __attribute__((always_inline)) void accumulate(__m512 (&acc)[R][T], const Decoded* const* rows,
                                                      const TokenView* tokens, std::int64_t c0, std::int64_t n) {
    const __m512i shift = _mm512_set1_epi8(static_cast<char>(0x80));
    const __m512i ones = _mm512_set1_epi8(1);
    const __m512i pairIdx = pairIndex(0);
    for (std::int64_t k = 0; k < n; ++k) {
        const std::int64_t c = c0 + k;
        __m512i xu[T];
        __m512 dx[T];
        [[maybe_unused]] __m512 sv[T];
        for (int t = 0; t < T; ++t) {
            const __m512i xs = _mm512_loadu_si512(tokens[t].codes + kChunk * c);
            xu[t] = _mm512_xor_si512(xs, shift);
            dx[t] = _mm512_permutexvar_ps(
                pairIdx, _mm512_zextps128_ps512(_mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(tokens[t].scales + 2 * c)))));
            if constexpr (Asym) {
                sv[t] = _mm512_mul_ps(dx[t], _mm512_cvtepi32_ps(_mm512_dpbusd_epi32(_mm512_setzero_si512(), ones, xs)));
            }
        }
        for (int r = 0; r < R; ++r) {
            const Decoded& d = rows[r][k];
            const __m512i q = _mm512_load_si512(d.q);
            const __m512 ws = _mm512_load_ps(d.ws);
            const __m512 cw = _mm512_load_ps(d.cw);
            for (int t = 0; t < T; ++t) {
                const __m512i dot = _mm512_dpbusd_epi32(_mm512_setzero_si512(), xu[t], q);
                const __m512 exact = _mm512_fmadd_ps(ws, _mm512_cvtepi32_ps(dot), cw);
                acc[r][t] = _mm512_fmadd_ps(dx[t], exact, acc[r][t]);
                if constexpr (Asym) acc[r][t] = _mm512_fmadd_ps(_mm512_load_ps(d.mw), sv[t], acc[r][t]);
            }
        }
    }
}

template <int R, int T>
inline void storeTile(__m512 (&acc)[R][T], float* y, std::int64_t ldy, std::int64_t row, std::int64_t token) {
    for (int r = 0; r < R; ++r) {
        for (int t = 0; t < T; ++t) y[(token + t) * ldy + row + r] = _mm512_reduce_add_ps(acc[r][t]);
    }
}

template <class Format>
struct QuantKernel {
    const WeightMatrix& w;
    const ActivationBuffer& x;
    float* y;
    std::int64_t ldy;
    std::int64_t nb;      // 32-element blocks per row
    std::int64_t nChunks; // 64-column chunks per row

    const std::uint8_t* row(std::int64_t r) const {
        return static_cast<const std::uint8_t*>(w.data) + static_cast<std::size_t>(r) * w.rowBytes;
    }

    // Few tokens: stream each row once, decoding a few chunks at a time into L1.
    template <int R, int T>
    void streamTile(std::int64_t r0, std::int64_t t0, Decoded* scratch) const {
        __m512 acc[R][T];
        for (auto& a : acc)
            for (auto& v : a) v = _mm512_setzero_ps();
        TokenView tokens[T];
        for (int t = 0; t < T; ++t) tokens[t] = {x.codes(t0 + t), x.blockScales(t0 + t)};
        const Decoded* rows[R];
        for (int r = 0; r < R; ++r) rows[r] = scratch + r * kStreamChunks;
        for (std::int64_t c0 = 0; c0 < nChunks; c0 += kStreamChunks) {
            const std::int64_t n = std::min(kStreamChunks, nChunks - c0);
            for (int r = 0; r < R; ++r) Format::decode(row(r0 + r), nb, c0, c0 + n, scratch + r * kStreamChunks);
            accumulate<Format::asym, R, T>(acc, rows, tokens, c0, n);
        }
        storeTile<R, T>(acc, y, ldy, r0, t0);
    }

    template <int T>
    void streamRows(std::int64_t rowBegin, std::int64_t rowEnd, std::int64_t t0, Decoded* scratch) const {
        std::int64_t r = rowBegin;
        for (; r + kRowTile <= rowEnd; r += kRowTile) streamTile<kRowTile, T>(r, t0, scratch);
        for (; r < rowEnd; ++r) streamTile<1, T>(r, t0, scratch);
    }

    // Many tokens: decode a panel of rows whole, then sweep token tiles over it.
    template <int R, int T>
    void panelTile(const Decoded* panel, std::int64_t r0, std::int64_t panelRow, std::int64_t t0) const {
        __m512 acc[R][T];
        for (auto& a : acc)
            for (auto& v : a) v = _mm512_setzero_ps();
        TokenView tokens[T];
        for (int t = 0; t < T; ++t) tokens[t] = {x.codes(t0 + t), x.blockScales(t0 + t)};
        const Decoded* rows[R];
        for (int r = 0; r < R; ++r) rows[r] = panel + (panelRow + r) * nChunks;
        accumulate<Format::asym, R, T>(acc, rows, tokens, 0, nChunks);
        storeTile<R, T>(acc, y, ldy, r0 + panelRow, t0);
    }

    template <int T>
    void panelTokens(const Decoded* panel, std::int64_t r0, std::int64_t m, std::int64_t t0) const {
        std::int64_t r = 0;
        for (; r + kRowTile <= m; r += kRowTile) panelTile<kRowTile, T>(panel, r0, r, t0);
        for (; r < m; ++r) panelTile<1, T>(panel, r0, r, t0);
    }

    void run(std::int64_t rowBegin, std::int64_t rowEnd) const {
        thread_local std::vector<Decoded> scratch;
        const std::int64_t tokens = x.tokens();
        if (tokens <= kTokenTile) {
            scratch.resize(static_cast<std::size_t>(kRowTile * kStreamChunks));
            switch (tokens) {
            case 1: streamRows<1>(rowBegin, rowEnd, 0, scratch.data()); break;
            case 2: streamRows<2>(rowBegin, rowEnd, 0, scratch.data()); break;
            case 3: streamRows<3>(rowBegin, rowEnd, 0, scratch.data()); break;
            default: streamRows<4>(rowBegin, rowEnd, 0, scratch.data()); break;
            }
            return;
        }
        scratch.resize(static_cast<std::size_t>(kPanelRows * nChunks));
        for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kPanelRows) {
            const std::int64_t m = std::min(kPanelRows, rowEnd - r0);
            for (std::int64_t r = 0; r < m; ++r) Format::decode(row(r0 + r), nb, 0, nChunks, scratch.data() + r * nChunks);
            std::int64_t t0 = 0;
            for (; t0 + kTokenTile <= tokens; t0 += kTokenTile) panelTokens<kTokenTile>(scratch.data(), r0, m, t0);
            switch (tokens - t0) {
            case 1: panelTokens<1>(scratch.data(), r0, m, t0); break;
            case 2: panelTokens<2>(scratch.data(), r0, m, t0); break;
            case 3: panelTokens<3>(scratch.data(), r0, m, t0); break;
            default: break;
            }
        }
    }
};

template <class Format>
void runQuant(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd, float* y,
              std::int64_t ldy) {
    const QuantKernel<Format> kernel{w, x, y, ldy, w.cols / 32, x.paddedCols() / kChunk};
    kernel.run(rowBegin, rowEnd);
}

// ---- float weights ---------------------------------------------------------------------------

template <GgmlType Type>
inline __m512 loadWeights(const std::uint8_t* row, std::int64_t k, __mmask16 mask) {
    if constexpr (Type == GgmlType::F32) {
        return _mm512_maskz_loadu_ps(mask, reinterpret_cast<const float*>(row) + k);
    } else if constexpr (Type == GgmlType::F16) {
        return _mm512_cvtph_ps(_mm256_maskz_loadu_epi16(mask, row + 2 * k));
    } else {
        return _mm512_castsi512_ps(_mm512_slli_epi32(_mm512_cvtepu16_epi32(_mm256_maskz_loadu_epi16(mask, row + 2 * k)), 16));
    }
}

template <GgmlType Type>
struct FloatKernel {
    const WeightMatrix& w;
    const ActivationBuffer& x;
    float* y;
    std::int64_t ldy;

    const std::uint8_t* row(std::int64_t r) const {
        return static_cast<const std::uint8_t*>(w.data) + static_cast<std::size_t>(r) * w.rowBytes;
    }

    template <int R, int T>
    void tile(std::int64_t r0, std::int64_t t0) const {
        __m512 acc[R][T];
        for (auto& a : acc)
            for (auto& v : a) v = _mm512_setzero_ps();
        const std::uint8_t* rows[R];
        for (int r = 0; r < R; ++r) rows[r] = row(r0 + r);
        const float* xs[T];
        for (int t = 0; t < T; ++t) xs[t] = x.values(t0 + t);
        for (std::int64_t k = 0; k < w.cols; k += 16) {
            const __mmask16 mask = w.cols - k >= 16 ? __mmask16(0xFFFF) : __mmask16((1u << (w.cols - k)) - 1);
            __m512 xv[T];
            for (int t = 0; t < T; ++t) xv[t] = _mm512_loadu_ps(xs[t] + k); // padded with zeros
            for (int r = 0; r < R; ++r) {
                const __m512 wv = loadWeights<Type>(rows[r], k, mask);
                for (int t = 0; t < T; ++t) acc[r][t] = _mm512_fmadd_ps(wv, xv[t], acc[r][t]);
            }
        }
        storeTile<R, T>(acc, y, ldy, r0, t0);
    }

    template <int T>
    void rows(std::int64_t rowBegin, std::int64_t rowEnd, std::int64_t t0) const {
        std::int64_t r = rowBegin;
        for (; r + kRowTile <= rowEnd; r += kRowTile) tile<kRowTile, T>(r, t0);
        for (; r < rowEnd; ++r) tile<1, T>(r, t0);
    }

    void tokensOver(std::int64_t rowBegin, std::int64_t rowEnd, std::int64_t t0, std::int64_t count) const {
        switch (count) {
        case 1: rows<1>(rowBegin, rowEnd, t0); break;
        case 2: rows<2>(rowBegin, rowEnd, t0); break;
        case 3: rows<3>(rowBegin, rowEnd, t0); break;
        default: rows<4>(rowBegin, rowEnd, t0); break;
        }
    }

    void run(std::int64_t rowBegin, std::int64_t rowEnd) const {
        const std::int64_t tokens = x.tokens();
        // Panels of rows stay in L2 while every token tile passes over them.
        for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kPanelRows) {
            const std::int64_t r1 = std::min(rowEnd, r0 + kPanelRows);
            for (std::int64_t t0 = 0; t0 < tokens; t0 += kTokenTile) {
                tokensOver(r0, r1, t0, std::min<std::int64_t>(kTokenTile, tokens - t0));
            }
        }
    }
};

template <GgmlType Type>
void runFloat(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd, float* y,
              std::int64_t ldy) {
    const FloatKernel<Type> kernel{w, x, y, ldy};
    kernel.run(rowBegin, rowEnd);
}

} // namespace

void quantizeActivationsAvx512(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales) {
    for (std::int64_t b = 0; b < paddedCols / 32; ++b) {
        if (32 * b >= cols) {
            scales[b] = 0.0f;
            _mm256_storeu_si256(reinterpret_cast<__m256i*>(codes + 32 * b), _mm256_setzero_si256());
            continue;
        }
        const __m512 a = _mm512_loadu_ps(x + 32 * b);
        const __m512 c = _mm512_loadu_ps(x + 32 * b + 16);
        const float amax = _mm512_reduce_max_ps(_mm512_max_ps(_mm512_abs_ps(a), _mm512_abs_ps(c)));
        const float d = amax / 127.0f;
        const float id = d != 0.0f ? 1.0f / d : 0.0f;
        scales[b] = d;
        const __m512 idv = _mm512_set1_ps(id);
        const __m128i qa = _mm512_cvtsepi32_epi8(_mm512_cvtps_epi32(_mm512_mul_ps(a, idv)));
        const __m128i qc = _mm512_cvtsepi32_epi8(_mm512_cvtps_epi32(_mm512_mul_ps(c, idv)));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(codes + 32 * b), qa);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(codes + 32 * b + 16), qc);
    }
}

void matmulAvx512(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                  float* y, std::int64_t ldy) {
    switch (w.type) {
    case GgmlType::F32: return runFloat<GgmlType::F32>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::F16: return runFloat<GgmlType::F16>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::BF16: return runFloat<GgmlType::BF16>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q8_0: return runQuant<Q8_0>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q4_0: return runQuant<Q4_0>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q4_1: return runQuant<Q4_1>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q5_0: return runQuant<Q5_0>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q5_1: return runQuant<Q5_1>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q4_K: return runQuant<Q4_K>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q5_K: return runQuant<Q5_K>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q6_K: return runQuant<Q6_K>(w, x, rowBegin, rowEnd, y, ldy);
    default: return matmulScalar(w, x, rowBegin, rowEnd, y, ldy);
    }
}

} // namespace parlune::llm::detail
