// AVX2 + FMA path for processors without AVX-512. Float weights: FMA tiles. Quantised weights:
// the same scheme as the AVX-512 path on 32-column chunks (one 32-block, or a K-quant
// sub-block): rows decoded to unsigned 8-bit codes with per-4-code scales, multiplied with the
// signed activation codes by VPMADDUBSW/VPMADDWD, the format's offset or minimum applied through
// the activation sums. Q8_0 codes and the IQ4 grid levels need all 8 bits, so they stay signed and
// use the sign trick (|w| times x with w's sign) to keep the 16-bit pair sums from saturating.
#include "llm/tensor/LowBitCodecs.h"
#include "llm/tensor/MatMulDispatch.h"
#include "llm/tensor/Quantization.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace parlune::llm::detail {

namespace {

constexpr int kRowTile = 4;
constexpr int kTokenTile = 3;
constexpr std::int64_t kPanelRows = 16;

inline float hsum(__m256 v) {
    const __m128 s = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    const __m128 h = _mm_add_ps(s, _mm_movehl_ps(s, s));
    return _mm_cvtss_f32(_mm_add_ss(h, _mm_movehdup_ps(h)));
}

template <GgmlType Type> inline __m256 load8(const void* row, std::int64_t k) {
    if constexpr (Type == GgmlType::F16) {
        return _mm256_cvtph_ps(
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(static_cast<const std::uint16_t*>(row) + k)));
    } else if constexpr (Type == GgmlType::BF16) {
        const __m128i h =
            _mm_loadu_si128(reinterpret_cast<const __m128i*>(static_cast<const std::uint16_t*>(row) + k));
        return _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_cvtepu16_epi32(h), 16));
    } else {
        return _mm256_loadu_ps(static_cast<const float*>(row) + k);
    }
}

template <GgmlType Type> inline float scalarAt(const void* row, std::int64_t k) {
    if constexpr (Type == GgmlType::F16)
        return fp16ToFloat(static_cast<const std::uint16_t*>(row)[k]);
    else if constexpr (Type == GgmlType::BF16)
        return bf16ToFloat(static_cast<const std::uint16_t*>(row)[k]);
    else
        return static_cast<const float*>(row)[k];
}

// rows[R] x tokens[T] over `cols` columns; tokens are padded to a multiple of 8 with zeros.
template <GgmlType Type, int R, int T>
void tile(const void* const* rows, const float* const* tokens, std::int64_t cols, float* y, std::int64_t ldy,
          std::int64_t row, std::int64_t token) {
    __m256 acc[R][T];
#pragma GCC unroll 8
    for (auto& a : acc)
#pragma GCC unroll 8
        for (auto& v : a)
            v = _mm256_setzero_ps();
    std::int64_t k = 0;
    for (; k + 8 <= cols; k += 8) {
        __m256 xv[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            xv[t] = _mm256_loadu_ps(tokens[t] + k);
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            const __m256 wv = load8<Type>(rows[r], k);
#pragma GCC unroll 8
            for (int t = 0; t < T; ++t)
                acc[r][t] = _mm256_fmadd_ps(wv, xv[t], acc[r][t]);
        }
    }
    // The last columns join the same lanes as whole steps would: attention multiplies a row of
    // probabilities whose length depends on the batch, and a token's result must not.
    if (k < cols) {
        __m256 xv[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            xv[t] = _mm256_loadu_ps(tokens[t] + k);
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            alignas(32) float tail[8] = {};
            for (std::int64_t i = k; i < cols; ++i)
                tail[i - k] = scalarAt<Type>(rows[r], i);
            const __m256 wv = _mm256_load_ps(tail);
#pragma GCC unroll 8
            for (int t = 0; t < T; ++t)
                acc[r][t] = _mm256_fmadd_ps(wv, xv[t], acc[r][t]);
        }
    }
#pragma GCC unroll 8
    for (int r = 0; r < R; ++r) {
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            y[(token + t) * ldy + row + r] = hsum(acc[r][t]);
    }
}

template <GgmlType Type, int T>
void rowsOver(const void* const* rows, std::int64_t count, const float* const* tokens, std::int64_t cols,
              float* y, std::int64_t ldy, std::int64_t row, std::int64_t token) {
    std::int64_t r = 0;
    for (; r + kRowTile <= count; r += kRowTile)
        tile<Type, kRowTile, T>(rows + r, tokens, cols, y, ldy, row + r, token);
    for (; r < count; ++r)
        tile<Type, 1, T>(rows + r, tokens, cols, y, ldy, row + r, token);
}

// A panel of up to kPanelRows rows (as float, F16 or BF16) against every token.
template <GgmlType Type>
void panel(const void* const* rows, std::int64_t count, const float* const* tokens, std::int64_t nTokens,
           std::int64_t cols, float* y, std::int64_t ldy, std::int64_t row) {
    for (std::int64_t t0 = 0; t0 < nTokens; t0 += kTokenTile) {
        const float* const* tk = tokens + t0;
        switch (std::min<std::int64_t>(kTokenTile, nTokens - t0)) {
        case 1:
            rowsOver<Type, 1>(rows, count, tk, cols, y, ldy, row, t0);
            break;
        case 2:
            rowsOver<Type, 2>(rows, count, tk, cols, y, ldy, row, t0);
            break;
        default:
            rowsOver<Type, 3>(rows, count, tk, cols, y, ldy, row, t0);
            break;
        }
    }
}

template <GgmlType Type>
void runFloat(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
              float* y, std::int64_t ldy) {
    thread_local std::vector<const float*> tokens;
    tokens.resize(static_cast<std::size_t>(x.tokens()));
    for (std::int64_t t = 0; t < x.tokens(); ++t)
        tokens[t] = x.values(t);
    const auto* base = static_cast<const std::uint8_t*>(w.data);
    for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kPanelRows) {
        const void* rows[kPanelRows];
        const std::int64_t count = std::min(kPanelRows, rowEnd - r0);
        for (std::int64_t r = 0; r < count; ++r)
            rows[r] = base + static_cast<std::size_t>(r0 + r) * w.rowBytes;
        panel<Type>(rows, count, tokens.data(), x.tokens(), w.cols, y, ldy, r0);
    }
}

constexpr std::int64_t kChunk = 32;

struct alignas(32) Decoded {
    std::uint8_t q[32]; // unsigned codes (signed for Q8_0)
    float ws[8];        // scale of each group of 4 codes
    float mw[8];        // additive offset per element (formats with a minimum)
};

inline std::uint16_t u16(const std::uint8_t* p) {
    std::uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}
inline std::uint32_t u32(const std::uint8_t* p) {
    std::uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
inline float half(const std::uint8_t* p) {
    return _cvtsh_ss(u16(p));
}

// The eight 6-bit scales and minima of a K-quant block, one per byte.
inline void kScaleBytes(const std::uint8_t* b, std::uint64_t& sc, std::uint64_t& mn) {
    const std::uint32_t a = u32(b + 4), m = u32(b + 8), h = u32(b + 12);
    sc = (a & 0x3F3F3F3Fu) | static_cast<std::uint64_t>((h & 0x0F0F0F0Fu) | (((a >> 6) & 0x03030303u) << 4))
                                 << 32;
    mn = (m & 0x3F3F3F3Fu) |
         static_cast<std::uint64_t>(((h >> 4) & 0x0F0F0F0Fu) | (((m >> 6) & 0x03030303u) << 4)) << 32;
}

inline void store(Decoded& o, __m256i q, __m256 ws) {
    _mm256_store_si256(reinterpret_cast<__m256i*>(o.q), q);
    _mm256_store_ps(o.ws, ws);
}
inline void store(Decoded& o, __m256i q, __m256 ws, __m256 mw) {
    store(o, q, ws);
    _mm256_store_ps(o.mw, mw);
}

// 16 bytes of nibbles -> [low nibbles, high nibbles].
inline __m256i nibbles16(const std::uint8_t* p) {
    const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
    const __m128i mask = _mm_set1_epi8(0x0F);
    return _mm256_set_m128i(_mm_and_si128(_mm_srli_epi16(v, 4), mask), _mm_and_si128(v, mask));
}
// Bit i of `bits` -> 0x10 in byte i.
inline __m256i bitsToBytes(std::uint32_t bits) {
    const __m256i spread = _mm256_shuffle_epi8(
        _mm256_set1_epi32(static_cast<int>(bits)),
        _mm256_set_epi64x(0x0303030303030303, 0x0202020202020202, 0x0101010101010101, 0x0000000000000000));
    const __m256i select = _mm256_set1_epi64x(static_cast<long long>(0x8040201008040201ull));
    const __m256i set = _mm256_cmpeq_epi8(_mm256_and_si256(spread, select), select);
    return _mm256_and_si256(set, _mm256_set1_epi8(0x10));
}

struct Q8_0 {
    static constexpr bool asym = false, signedCodes = true;
    static constexpr float offset = 0.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t c0, std::int64_t c1, Sink&& sink) {
        for (std::int64_t c = c0; c < c1; ++c) {
            const std::uint8_t* b = row + 34 * c;
            sink(c - c0, _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 2)),
                 _mm256_set1_ps(half(b)));
        }
    }
};

template <int Bytes, int DataOffset, bool HasMin, bool HasHigh> struct SmallBlock {
    static constexpr bool asym = HasMin, signedCodes = false;
    static constexpr float offset = HasHigh ? 16.0f : 8.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t c0, std::int64_t c1, Sink&& sink) {
        for (std::int64_t c = c0; c < c1; ++c) {
            const std::uint8_t* b = row + Bytes * c;
            __m256i q = nibbles16(b + DataOffset);
            if constexpr (HasHigh)
                q = _mm256_or_si256(q, bitsToBytes(u32(b + (HasMin ? 4 : 2))));
            if constexpr (HasMin) {
                sink(c - c0, q, _mm256_set1_ps(half(b)), _mm256_set1_ps(half(b + 2)));
            } else {
                sink(c - c0, q, _mm256_set1_ps(half(b)));
            }
        }
    }
};
using Q4_0 = SmallBlock<18, 2, false, false>;
using Q4_1 = SmallBlock<20, 4, true, false>;
using Q5_0 = SmallBlock<22, 6, false, true>;
using Q5_1 = SmallBlock<24, 8, true, true>;

template <bool HighBits> struct KQuant {
    static constexpr bool asym = true, signedCodes = false;
    static constexpr float offset = 0.0f;
    static constexpr std::int64_t kBytes = HighBits ? 176 : 144;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t c0, std::int64_t c1, Sink&& sink) {
        const __m256i low4 = _mm256_set1_epi8(0x0F);
        for (std::int64_t s = c0 / 8; s < c1 / 8; ++s) {
            const std::uint8_t* b = row + kBytes * s;
            std::uint64_t sc, mn;
            kScaleBytes(b, sc, mn);
            const __m256 scales = _mm256_mul_ps(
                _mm256_set1_ps(half(b)),
                _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(static_cast<long long>(sc)))));
            const __m256 mins = _mm256_mul_ps(
                _mm256_set1_ps(-half(b + 2)),
                _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(_mm_cvtsi64_si128(static_cast<long long>(mn)))));
            const std::uint8_t* qs = b + (HighBits ? 48 : 16);
            __m256i high = _mm256_setzero_si256();
            if constexpr (HighBits)
                high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 16));
            for (int j = 0; j < 8; ++j) {
                const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(qs + 32 * (j / 2)));
                __m256i q =
                    j % 2 ? _mm256_and_si256(_mm256_srli_epi16(v, 4), low4) : _mm256_and_si256(v, low4);
                if constexpr (HighBits) {
                    const __m256i bit = _mm256_set1_epi8(static_cast<char>(1 << j));
                    q = _mm256_or_si256(q,
                                        _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_and_si256(high, bit), bit),
                                                         _mm256_set1_epi8(0x10)));
                }
                const __m256i idx = _mm256_set1_epi32(j);
                sink(8 * s + j - c0, q, _mm256_permutevar8x32_ps(scales, idx),
                     _mm256_permutevar8x32_ps(mins, idx));
            }
        }
    }
};
using Q4_K = KQuant<false>;
using Q5_K = KQuant<true>;

struct Q6_K {
    static constexpr bool asym = false, signedCodes = false;
    static constexpr float offset = 32.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t c0, std::int64_t c1, Sink&& sink) {
        const __m256i low4 = _mm256_set1_epi8(0x0F);
        const __m256i low2 = _mm256_set1_epi8(3);
        for (std::int64_t s = c0 / 8; s < c1 / 8; ++s) {
            const std::uint8_t* b = row + 210 * s;
            const __m256 d = _mm256_set1_ps(half(b + 208));
            const __m128i sc = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 192));
            const __m256 scales[2] = {
                _mm256_mul_ps(d, _mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(sc))),
                _mm256_mul_ps(d, _mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(_mm_srli_si128(sc, 8))))};
            for (int h = 0; h < 2; ++h) {
                const __m256i l0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 64 * h));
                const __m256i l1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 64 * h + 32));
                const __m256i qh = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 128 + 32 * h));
                const __m256i parts[4] = {
                    _mm256_or_si256(_mm256_and_si256(l0, low4),
                                    _mm256_slli_epi16(_mm256_and_si256(qh, low2), 4)),
                    _mm256_or_si256(_mm256_and_si256(l1, low4),
                                    _mm256_slli_epi16(_mm256_and_si256(_mm256_srli_epi16(qh, 2), low2), 4)),
                    _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(l0, 4), low4),
                                    _mm256_slli_epi16(_mm256_and_si256(_mm256_srli_epi16(qh, 4), low2), 4)),
                    _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(l1, 4), low4),
                                    _mm256_slli_epi16(_mm256_and_si256(_mm256_srli_epi16(qh, 6), low2), 4)),
                };
                for (int p = 0; p < 4; ++p) {
                    const int chunk = 4 * h + p; // 16-element scale groups 2*chunk, 2*chunk + 1
                    const int g = 2 * chunk % 8;
                    const __m256i idx = _mm256_set_epi32(g + 1, g + 1, g + 1, g + 1, g, g, g, g);
                    sink(8 * s + chunk - c0, parts[p], _mm256_permutevar8x32_ps(scales[chunk / 4], idx));
                }
            }
        }
    }
};

// The low 8 unsigned bytes of v as floats.
inline __m256 bytesToFloats(__m128i v) {
    return _mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(v));
}
// Lanes of chunk j (32 columns) pick 16-column groups 2j and 2j + 1 of a block's 16, from the
// vector holding groups 8 * (j / 4) ...
inline __m256i groupPair(int j) {
    const int g = 2 * (j % 4);
    return _mm256_set_epi32(g + 1, g + 1, g + 1, g + 1, g, g, g, g);
}

// Q2_K and Q3_K: the two low bits of the 32 values of chunk j of a block (see lowBitsByte).
inline __m256i lowBitPairs(const std::uint8_t* codes, int j) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(codes + lowBitsByte(32 * j)));
    return _mm256_and_si256(_mm256_srl_epi16(v, _mm_cvtsi32_si128(lowBitsShift(32 * j))),
                            _mm256_set1_epi8(3));
}

struct Q2_K {
    static constexpr bool asym = true, signedCodes = false;
    static constexpr float offset = 0.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t c0, std::int64_t c1, Sink&& sink) {
        for (std::int64_t s = c0 / 8; s < c1 / 8; ++s) {
            const std::uint8_t* b = row + 84 * s;
            const __m128i packed = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
            const __m128i low4 = _mm_set1_epi8(0x0F);
            const __m128i sc = _mm_and_si128(packed, low4),
                          mn = _mm_and_si128(_mm_srli_epi16(packed, 4), low4);
            const __m256 d = _mm256_set1_ps(half(b + kQ2KScale)), dmin = _mm256_set1_ps(-half(b + kQ2KMin));
            const __m256 scales[2] = {_mm256_mul_ps(d, bytesToFloats(sc)),
                                      _mm256_mul_ps(d, bytesToFloats(_mm_srli_si128(sc, 8)))};
            const __m256 mins[2] = {_mm256_mul_ps(dmin, bytesToFloats(mn)),
                                    _mm256_mul_ps(dmin, bytesToFloats(_mm_srli_si128(mn, 8)))};
            for (int j = 0; j < 8; ++j) {
                const __m256i idx = groupPair(j);
                sink(8 * s + j - c0, lowBitPairs(b + kQ2KCodes, j),
                     _mm256_permutevar8x32_ps(scales[j / 4], idx),
                     _mm256_permutevar8x32_ps(mins[j / 4], idx));
            }
        }
    }
};

struct Q3_K {
    static constexpr bool asym = false, signedCodes = false;
    static constexpr float offset = 4.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t c0, std::int64_t c1, Sink&& sink) {
        for (std::int64_t s = c0 / 8; s < c1 / 8; ++s) {
            const std::uint8_t* b = row + 110 * s;
            std::uint64_t first, second;
            q3kBiasedScales(b + kQ3KScales, first, second);
            const __m256 d = _mm256_set1_ps(half(b + kQ3KScale));
            const __m256i bias = _mm256_set1_epi32(32);
            const __m256 scales[2] = {
                _mm256_mul_ps(
                    d, _mm256_cvtepi32_ps(_mm256_sub_epi32(
                           _mm256_cvtepu8_epi32(_mm_cvtsi64_si128(static_cast<long long>(first))), bias))),
                _mm256_mul_ps(
                    d, _mm256_cvtepi32_ps(_mm256_sub_epi32(
                           _mm256_cvtepu8_epi32(_mm_cvtsi64_si128(static_cast<long long>(second))), bias)))};
            const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b));
            for (int j = 0; j < 8; ++j) {
                const __m256i bit = _mm256_set1_epi8(static_cast<char>(1 << j));
                const __m256i third = _mm256_and_si256(_mm256_cmpeq_epi8(_mm256_and_si256(high, bit), bit),
                                                       _mm256_set1_epi8(4));
                sink(8 * s + j - c0, _mm256_or_si256(lowBitPairs(b + kQ3KCodes, j), third),
                     _mm256_permutevar8x32_ps(scales[j / 4], groupPair(j)));
            }
        }
    }
};

// IQ4 codes are the grid levels themselves, signed like Q8_0's.
inline __m256i iq4Levels(const std::uint8_t* qs) {
    const __m256i grid =
        _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(kIq4Levels)));
    return _mm256_shuffle_epi8(grid, nibbles16(qs));
}

struct IQ4_NL {
    static constexpr bool asym = false, signedCodes = true;
    static constexpr float offset = 0.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t c0, std::int64_t c1, Sink&& sink) {
        for (std::int64_t c = c0; c < c1; ++c) {
            const std::uint8_t* b = row + 18 * c;
            sink(c - c0, iq4Levels(b + 2), _mm256_set1_ps(half(b)));
        }
    }
};

struct IQ4_XS {
    static constexpr bool asym = false, signedCodes = true;
    static constexpr float offset = 0.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t c0, std::int64_t c1, Sink&& sink) {
        for (std::int64_t s = c0 / 8; s < c1 / 8; ++s) {
            const std::uint8_t* b = row + 136 * s;
            const __m256 scales = _mm256_mul_ps(
                _mm256_set1_ps(half(b)),
                _mm256_cvtepi32_ps(_mm256_sub_epi32(
                    _mm256_cvtepu8_epi32(_mm_cvtsi64_si128(static_cast<long long>(iq4xsBiasedScales(b)))),
                    _mm256_set1_epi32(32))));
            for (int j = 0; j < 8; ++j) {
                sink(8 * s + j - c0, iq4Levels(b + kIq4XsCodes + 16 * j),
                     _mm256_permutevar8x32_ps(scales, _mm256_set1_epi32(j)));
            }
        }
    }
};

struct TokenView {
    const std::int8_t* codes;
    const float* scales;
};

// Everything one chunk of a token's activations contributes to a product.
struct TokenTerms {
    __m256i xs;  // codes
    __m256 dx;   // their scale
    __m256 bias; // formats with a minimum: dx * (sum of each lane's 4 codes); with an offset:
                 // -offset times that; zero otherwise
};

template <class Format>
inline __attribute__((always_inline)) TokenTerms tokenTerms(const TokenView& token, std::int64_t c) {
    TokenTerms t;
    t.xs = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(token.codes + kChunk * c));
    t.dx = _mm256_broadcast_ss(token.scales + c);
    if constexpr (Format::asym || Format::offset != 0.0f) {
        const __m256 sums = _mm256_cvtepi32_ps(
            _mm256_madd_epi16(_mm256_maddubs_epi16(_mm256_set1_epi8(1), t.xs), _mm256_set1_epi16(1)));
        t.bias = Format::asym ? _mm256_mul_ps(t.dx, sums)
                              : _mm256_mul_ps(_mm256_mul_ps(t.dx, _mm256_set1_ps(-Format::offset)), sums);
    } else {
        t.bias = _mm256_setzero_ps();
    }
    return t;
}

// acc += one decoded chunk (codes q, scales ws, minima mw where the format has them) times one
// token's chunk, lane-wise.
template <class Format>
inline __attribute__((always_inline)) void addChunk(__m256& acc, __m256i q, __m256 ws, __m256 mw,
                                                    const TokenTerms& t) {
    const __m256i ones16 = _mm256_set1_epi16(1);
    __m256i pairs;
    if constexpr (Format::signedCodes) {
        pairs = _mm256_maddubs_epi16(_mm256_sign_epi8(q, q), _mm256_sign_epi8(t.xs, q));
    } else {
        pairs = _mm256_maddubs_epi16(q, t.xs);
    }
    const __m256 dot = _mm256_cvtepi32_ps(_mm256_madd_epi16(pairs, ones16));
    if constexpr (Format::asym) {
        acc = _mm256_fmadd_ps(ws, _mm256_mul_ps(t.dx, dot), acc);
        acc = _mm256_fmadd_ps(mw, t.bias, acc);
    } else {
        acc = _mm256_fmadd_ps(ws, _mm256_fmadd_ps(t.dx, dot, t.bias), acc);
    }
}

template <class Format, int R, int T>
inline __attribute__((always_inline)) void accumulate(__m256 (&acc)[R][T], const Decoded* const* rows,
                                                      const TokenView* tokens, std::int64_t c0,
                                                      std::int64_t n) {
    for (std::int64_t k = 0; k < n; ++k) {
        TokenTerms terms[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            terms[t] = tokenTerms<Format>(tokens[t], c0 + k);
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            const Decoded& d = rows[r][k];
            const __m256i q = _mm256_load_si256(reinterpret_cast<const __m256i*>(d.q));
            const __m256 ws = _mm256_load_ps(d.ws);
            const __m256 mw = Format::asym ? _mm256_load_ps(d.mw) : _mm256_setzero_ps();
#pragma GCC unroll 8
            for (int t = 0; t < T; ++t)
                addChunk<Format>(acc[r][t], q, ws, mw, terms[t]);
        }
    }
}

template <class... Minima> inline __m256 minimaOrZero(Minima... mw) {
    if constexpr (sizeof...(Minima) > 0)
        return (mw, ...);
    else
        return _mm256_setzero_ps();
}

// Decoders hand each chunk to a sink (its index from c0, codes, scales and, with a minimum, the
// minima): the tiles store the chunks, one-token rows use them at once.
template <class Format>
void decodeChunks(const std::uint8_t* row, std::int64_t c0, std::int64_t c1, Decoded* out) {
    Format::visit(row, c0, c1,
                  [out](std::int64_t k, __m256i q, __m256 ws, auto... mw) { store(out[k], q, ws, mw...); });
}

template <class Format> struct QuantKernel {
    const WeightMatrix& w;
    const ActivationBuffer& x;
    float* y;
    std::int64_t ldy;
    std::int64_t nChunks;

    std::int64_t panelStride() const { return nChunks | 1; }
    const std::uint8_t* row(std::int64_t r) const {
        return static_cast<const std::uint8_t*>(w.data) + static_cast<std::size_t>(r) * w.rowBytes;
    }

    template <int R, int T> void store(__m256 (&acc)[R][T], std::int64_t r0, std::int64_t t0) const {
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r)
#pragma GCC unroll 8
            for (int t = 0; t < T; ++t)
                y[(t0 + t) * ldy + r0 + r] = hsum(acc[r][t]);
    }

    template <int R, int T>
    void panelTile(const Decoded* panel, std::int64_t r0, std::int64_t panelRow, std::int64_t t0) const {
        __m256 acc[R][T];
#pragma GCC unroll 8
        for (auto& a : acc)
#pragma GCC unroll 8
            for (auto& v : a)
                v = _mm256_setzero_ps();
        TokenView tokens[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            tokens[t] = {x.codes(t0 + t), x.blockScales(t0 + t)};
        const Decoded* rows[R];
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r)
            rows[r] = panel + (panelRow + r) * panelStride();
        accumulate<Format, R, T>(acc, rows, tokens, 0, nChunks);
        store<R, T>(acc, r0 + panelRow, t0);
    }

    // One token: each chunk goes from the decoder straight into the product, in registers; the
    // operations and their order are streamTile's.
    void visitRow(std::int64_t r) const {
        __m256 acc = _mm256_setzero_ps();
        const TokenView token{x.codes(0), x.blockScales(0)};
        Format::visit(row(r), 0, nChunks, [&](std::int64_t k, __m256i q, __m256 ws, auto... mw) {
            addChunk<Format>(acc, q, ws, minimaOrZero(mw...), tokenTerms<Format>(token, k));
        });
        y[r] = hsum(acc);
    }

    void run(std::int64_t rowBegin, std::int64_t rowEnd) const {
        thread_local std::vector<Decoded> scratch;
        const std::int64_t tokens = x.tokens();
        if (tokens == 1) {
            for (std::int64_t r = rowBegin; r < rowEnd; ++r)
                visitRow(r);
            return;
        }
        constexpr int kPairRows = 2;
        scratch.resize(static_cast<std::size_t>(kPanelRows * panelStride()));
        for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kPanelRows) {
            const std::int64_t m = std::min(kPanelRows, rowEnd - r0);
            for (std::int64_t r = 0; r < m; ++r)
                decodeChunks<Format>(row(r0 + r), 0, nChunks, scratch.data() + r * panelStride());
            const std::int64_t nextBytes =
                std::min(kPanelRows, rowEnd - r0 - m) * static_cast<std::int64_t>(w.rowBytes);
            for (std::int64_t t0 = 0; t0 < tokens; t0 += 2) {
                prefetchShare(row(r0 + m), nextBytes, t0 / 2, (tokens + 1) / 2);
                const bool pair = t0 + 1 < tokens;
                std::int64_t r = 0;
                for (; r + kPairRows <= m; r += kPairRows) {
                    if (pair)
                        panelTile<kPairRows, 2>(scratch.data(), r0, r, t0);
                    else
                        panelTile<kPairRows, 1>(scratch.data(), r0, r, t0);
                }
                for (; r < m; ++r) {
                    if (pair)
                        panelTile<1, 2>(scratch.data(), r0, r, t0);
                    else
                        panelTile<1, 1>(scratch.data(), r0, r, t0);
                }
            }
        }
    }
};

// Tokens against K-quant rows (see KQuantToken.h): every 32-code vector is one Q4_K sub-block or
// two Q6_K groups. A block's integer sum is VPMADDUBSW of the unsigned weight codes with the
// activation codes (pairs stay below 2 * 63 * 127, so they never saturate) and VPMADDWD of those
// pairs with each lane's scale, spread from one 16-byte vector by VPSHUFB. T tokens share each
// block's decoding; every token keeps its own accumulators and operation order, the same as when
// it is alone.
template <int T>
void rowQ4K(const std::uint8_t* row, std::int64_t nSuper, const KQuantToken* const* tok, float* out) {
    const __m256i low4 = _mm256_set1_epi8(0x0F);
    __m256 acc[T];
    __m128 accMin[T];
#pragma GCC unroll 2
    for (int t = 0; t < T; ++t) {
        acc[t] = _mm256_setzero_ps();
        accMin[t] = _mm_setzero_ps();
    }
    for (std::int64_t s = 0; s < nSuper; ++s) {
        const std::uint8_t* b = row + 144 * s;
        prefetchBlockAhead<144>(b);
        std::uint64_t sc, mn;
        kScaleBytes(b, sc, mn);
        const __m256i scaleBytes = _mm256_set1_epi64x(static_cast<long long>(sc));
        __m256i sums[T];
#pragma GCC unroll 2
        for (int t = 0; t < T; ++t)
            sums[t] = _mm256_setzero_si256();
#pragma GCC unroll 4
        for (int j = 0; j < 4; ++j) {
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 16 + 32 * j));
#pragma GCC unroll 2
            for (int nibble = 0; nibble < 2; ++nibble) {
                const int sub = 2 * j + nibble;
                const __m256i q =
                    nibble ? _mm256_and_si256(_mm256_srli_epi16(v, 4), low4) : _mm256_and_si256(v, low4);
                const __m256i scale =
                    _mm256_shuffle_epi8(scaleBytes, _mm256_set1_epi16(static_cast<short>(0x8000 | sub)));
#pragma GCC unroll 2
                for (int t = 0; t < T; ++t) {
                    const __m256i xs =
                        _mm256_load_si256(reinterpret_cast<const __m256i*>(tok[t][s].x + 32 * q4kSlot(sub)));
                    sums[t] =
                        _mm256_add_epi32(sums[t], _mm256_madd_epi16(_mm256_maddubs_epi16(q, xs), scale));
                }
            }
        }
        // The minima meet the sub-block code sums in one short integer dot product.
        const __m128i mins = _mm_cvtepu8_epi16(_mm_cvtsi64_si128(static_cast<long long>(mn)));
        const float d = half(b), dmin = -half(b + 2);
#pragma GCC unroll 2
        for (int t = 0; t < T; ++t) {
            const float dx = tok[t][s].dx;
            acc[t] = _mm256_fmadd_ps(_mm256_cvtepi32_ps(sums[t]), _mm256_set1_ps(d * dx), acc[t]);
            const __m128i m =
                _mm_madd_epi16(mins, _mm_load_si128(reinterpret_cast<const __m128i*>(tok[t][s].sums)));
            accMin[t] = _mm_fmadd_ps(_mm_cvtepi32_ps(m), _mm_set1_ps(dmin * dx), accMin[t]);
        }
    }
#pragma GCC unroll 2
    for (int t = 0; t < T; ++t)
        out[t] = hsum(_mm256_add_ps(acc[t], _mm256_zextps128_ps256(accMin[t])));
}

// VPSHUFB control giving every word of the low 128-bit lane word `first` of that lane and every
// word of the high lane word `first + 1`.
inline __m256i spreadWordPair(int first) {
    const auto word = [](int w) { return static_cast<short>((2 * w) | ((2 * w + 1) << 8)); };
    return _mm256_set_m128i(_mm_set1_epi16(word(first + 1)), _mm_set1_epi16(word(first)));
}

template <int T>
void rowQ6K(const std::uint8_t* row, std::int64_t nSuper, const KQuantToken* const* tok, float* out) {
    const __m256i low4 = _mm256_set1_epi8(0x0F);
    const __m256i low2 = _mm256_set1_epi8(3);
    __m256 acc[T];
#pragma GCC unroll 2
    for (int t = 0; t < T; ++t)
        acc[t] = _mm256_setzero_ps();
    for (std::int64_t s = 0; s < nSuper; ++s) {
        const std::uint8_t* b = row + 210 * s;
        prefetchBlockAhead<210>(b);
        const __m256i scales =
            _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 192)));
        const __m256i halves[2] = {_mm256_broadcastsi128_si256(_mm256_castsi256_si128(scales)),
                                   _mm256_broadcastsi128_si256(_mm256_extracti128_si256(scales, 1))};
        // The codes' offset of 32 meets the group code sums first: -32 * scale fits 16 bits.
        const __m256i offsetScales = _mm256_sub_epi16(_mm256_setzero_si256(), _mm256_slli_epi16(scales, 5));
        __m256i sums[T];
#pragma GCC unroll 2
        for (int t = 0; t < T; ++t) {
            sums[t] = _mm256_madd_epi16(offsetScales,
                                        _mm256_load_si256(reinterpret_cast<const __m256i*>(tok[t][s].sums)));
        }
#pragma GCC unroll 2
        for (int h = 0; h < 2; ++h) {
            const __m256i l0 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 64 * h));
            const __m256i l1 = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 64 * h + 32));
            const __m256i qh = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 128 + 32 * h));
            const __m256i parts[4] = {
                _mm256_or_si256(_mm256_and_si256(l0, low4), _mm256_slli_epi16(_mm256_and_si256(qh, low2), 4)),
                _mm256_or_si256(_mm256_and_si256(l1, low4),
                                _mm256_slli_epi16(_mm256_and_si256(_mm256_srli_epi16(qh, 2), low2), 4)),
                _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(l0, 4), low4),
                                _mm256_slli_epi16(_mm256_and_si256(_mm256_srli_epi16(qh, 4), low2), 4)),
                _mm256_or_si256(_mm256_and_si256(_mm256_srli_epi16(l1, 4), low4),
                                _mm256_slli_epi16(_mm256_and_si256(_mm256_srli_epi16(qh, 6), low2), 4)),
            };
#pragma GCC unroll 4
            for (int p = 0; p < 4; ++p) {
                const int chunk = 4 * h + p; // 32 columns: groups 2 * chunk and 2 * chunk + 1
                const __m256i scale = _mm256_shuffle_epi8(halves[h], spreadWordPair(2 * p));
#pragma GCC unroll 2
                for (int t = 0; t < T; ++t) {
                    const __m256i xs =
                        _mm256_load_si256(reinterpret_cast<const __m256i*>(tok[t][s].x + 32 * chunk));
                    sums[t] = _mm256_add_epi32(sums[t],
                                               _mm256_madd_epi16(_mm256_maddubs_epi16(parts[p], xs), scale));
                }
            }
        }
        const float d = half(b + 208);
#pragma GCC unroll 2
        for (int t = 0; t < T; ++t)
            acc[t] = _mm256_fmadd_ps(_mm256_cvtepi32_ps(sums[t]), _mm256_set1_ps(d * tok[t][s].dx), acc[t]);
    }
#pragma GCC unroll 2
    for (int t = 0; t < T; ++t)
        out[t] = hsum(acc[t]);
}

// Two tokens at a time: more would not fit the sixteen registers.
constexpr KQuantRows kQ4KGroup[] = {rowQ4K<1>, rowQ4K<2>};
constexpr KQuantRows kQ6KGroup[] = {rowQ6K<1>, rowQ6K<2>};

template <class Format>
void runQuant(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
              float* y, std::int64_t ldy) {
    // Chunks past the last block are never decoded: the weights end there and the activations
    // are zero-padded, so only whole blocks are walked.
    const QuantKernel<Format> kernel{w, x, y, ldy, w.cols / kChunk};
    kernel.run(rowBegin, rowEnd);
}

} // namespace
namespace {

struct Avx2 {
    using Q8_0 = detail::Q8_0;
    using Q4_0 = detail::Q4_0;
    using Q4_1 = detail::Q4_1;
    using Q5_0 = detail::Q5_0;
    using Q5_1 = detail::Q5_1;
    using Q2_K = detail::Q2_K;
    using Q3_K = detail::Q3_K;
    using Q4_K = detail::Q4_K;
    using Q5_K = detail::Q5_K;
    using Q6_K = detail::Q6_K;
    using IQ4_NL = detail::IQ4_NL;
    using IQ4_XS = detail::IQ4_XS;

    template <GgmlType Type>
    static void floats(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                       std::int64_t rowEnd, float* y, std::int64_t ldy) {
        runFloat<Type>(w, x, rowBegin, rowEnd, y, ldy);
    }
    template <class Format>
    static void quantised(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                          std::int64_t rowEnd, float* y, std::int64_t ldy) {
        runQuant<Format>(w, x, rowBegin, rowEnd, y, ldy);
    }
    static bool ownKernels(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                           std::int64_t rowEnd, float* y, std::int64_t ldy) {
        if (rowPanelProductAvx2(w, x, rowBegin, rowEnd, y, ldy))
            return true;
        if (!x.hasKQuantTokens())
            return false;
        switch (w.type) {
        case GgmlType::Q4_K:
            registerKQuantProduct(kQ4KGroup, w, x, rowBegin, rowEnd, y, ldy);
            return true;
        case GgmlType::Q6_K:
            registerKQuantProduct(kQ6KGroup, w, x, rowBegin, rowEnd, y, ldy);
            return true;
        default:
            return false;
        }
    }
};

} // namespace

void matmulAvx2(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                float* y, std::int64_t ldy) {
    dispatchProduct<Avx2>(w, x, rowBegin, rowEnd, y, ldy);
}

} // namespace parlune::llm::detail
