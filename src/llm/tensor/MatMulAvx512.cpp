// AVX-512 (F, BW, VL, VNNI) path. Quantised weights are decoded, a few 64-column chunks at a
// time, into unsigned 8-bit codes (the format's own codes, offset kept) with per-4-code float
// scales, so VPDPBUSD multiplies them with the signed activation codes directly. A weight value
// is ws * code + bias; the bias is either -offset * ws (symmetric formats) or the format's
// minimum, and its product with the activations needs only the activation sums, computed once
// per chunk and token and shared by every row. Each decoded chunk is reused across a tile of
// tokens from L1/L2.
// The register-tile loops carry "GCC unroll": without it GCC 12 at -O3 keeps the accumulators
// in memory.
#include "llm/tensor/LowBitCodecs.h"
#include "llm/tensor/MatMulDispatch.h"
#include "llm/tensor/Quantization.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>
#include <type_traits>
#include <vector>

namespace parlune::llm::detail {

namespace {

constexpr std::int64_t kChunk = 64;        // columns per decoded chunk
constexpr int kRowTile = 4;                // weight rows per register tile
constexpr int kTokenTile = 4;              // tokens per register tile
constexpr std::int64_t kStreamChunks = 16; // chunks decoded at a time when streaming rows (multiple of 4)
// Decoded rows are laid out an odd number of chunks apart: a multiple of 4 KiB would make the
// loads of one row falsely wait on the stores of the next (4K aliasing).
constexpr std::int64_t kStreamStride = kStreamChunks + 1;
constexpr std::int64_t kPanelRows = 16; // rows decoded whole before being reused by many tokens

struct alignas(64) Decoded {
    std::uint8_t q[64]; // unsigned codes
    float ws[16];       // scale of each group of 4 codes
};
// Formats with a minimum also write one float per 32 columns (the minimum of that block or
// sub-block) to a separate, contiguous array: their product with the activation block sums is a
// short dot product per row and token, far cheaper than one more FMA per chunk.

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

inline float fp16ToFloatFast(std::uint16_t h) {
    return _cvtsh_ss(h);
}

// [a x8, b x8]
inline __attribute__((always_inline)) __m512 pairLanes(float a, float b) {
    return _mm512_castpd_ps(
        _mm512_insertf64x4(_mm512_castps_pd(_mm512_set1_ps(a)), _mm256_castps_pd(_mm256_set1_ps(b)), 1));
}
// [fp16 at p0 x8, fp16 at p1 x8] (zero for a missing p1).
__m512 pairHalves(const std::uint8_t* p0, const std::uint8_t* p1) {
    const std::uint32_t both = u16(p0) | (p1 ? static_cast<std::uint32_t>(u16(p1)) << 16 : 0u);
    const __m512 two = _mm512_zextps128_ps512(_mm_cvtph_ps(_mm_cvtsi32_si128(static_cast<int>(both))));
    return _mm512_permutexvar_ps(_mm512_inserti64x4(_mm512_setzero_si512(), _mm256_set1_epi32(1), 1), two);
}

inline void finish(Decoded& o, __m512i q, __m512 ws) {
    _mm512_store_si512(o.q, q);
    _mm512_store_ps(o.ws, ws);
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
    static constexpr float offset = 128.0f;
    static void decode(const std::uint8_t* row, std::int64_t nb, std::int64_t c0, std::int64_t c1,
                       Decoded* out, float*) {
        for (std::int64_t c = c0; c < c1; ++c) {
            const std::uint8_t* p0 = row + 34 * (2 * c);
            const bool two = 2 * c + 1 < nb;
            const std::uint8_t* p1 = two ? p0 + 34 : nullptr;
            const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p0 + 2));
            const __m256i b =
                two ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p1 + 2)) : _mm256_setzero_si256();
            const __m512i codes = _mm512_xor_si512(_mm512_inserti64x4(_mm512_zextsi256_si512(a), b, 1),
                                                   _mm512_set1_epi8(static_cast<char>(0x80)));
            finish(out[c - c0], codes, pairHalves(p0, p1));
        }
    }
};

template <int Bytes, int DataOffset, bool HasMin, bool HasHigh> struct SmallBlock {
    static constexpr bool asym = HasMin;
    static constexpr float offset = HasHigh ? 16.0f : 8.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t nb, std::int64_t c0, std::int64_t c1, float* mins,
                      Sink&& sink) {
        for (std::int64_t c = c0; c < c1; ++c) {
            const std::uint8_t* p0 = row + Bytes * (2 * c);
            const std::uint8_t* p1 = 2 * c + 1 < nb ? p0 + Bytes : nullptr;
            __m512i q = nibblePairs(p0 + DataOffset, p1 ? p1 + DataOffset : nullptr);
            if constexpr (HasHigh) {
                constexpr int hOff = HasMin ? 4 : 2;
                const std::uint64_t bits =
                    u32(p0 + hOff) | (p1 ? static_cast<std::uint64_t>(u32(p1 + hOff)) << 32 : 0);
                q = _mm512_mask_add_epi8(q, bits, q, _mm512_set1_epi8(0x10));
            }
            if constexpr (HasMin) {
                mins[2 * (c - c0)] = fp16ToFloatFast(u16(p0 + 2));
                mins[2 * (c - c0) + 1] = p1 ? fp16ToFloatFast(u16(p1 + 2)) : 0.0f;
            }
            sink(c - c0, q, pairHalves(p0, p1));
        }
    }
};
using Q4_0 = SmallBlock<18, 2, false, false>;
using Q4_1 = SmallBlock<20, 4, true, false>;
using Q5_0 = SmallBlock<22, 6, false, true>;
using Q5_1 = SmallBlock<24, 8, true, true>;

// The eight 6-bit scales (bytes 0-7) and mins (bytes 8-15) of a K-quant block, unpacked four at
// a time in general registers (the vector units are the busier ones).
inline __attribute__((always_inline)) __m128i kScaleBytes(const std::uint8_t* b) {
    const std::uint32_t a = u32(b + 4), m = u32(b + 8), h = u32(b + 12);
    const std::uint64_t sc =
        (a & 0x3F3F3F3Fu) | static_cast<std::uint64_t>((h & 0x0F0F0F0Fu) | (((a >> 6) & 0x03030303u) << 4))
                                << 32;
    const std::uint64_t mn =
        (m & 0x3F3F3F3Fu) |
        static_cast<std::uint64_t>(((h >> 4) & 0x0F0F0F0Fu) | (((m >> 6) & 0x03030303u) << 4)) << 32;
    return _mm_set_epi64x(static_cast<long long>(mn), static_cast<long long>(sc));
}
// The same as floats d * scale and -dmin * min.
inline __attribute__((always_inline)) void kScales(const std::uint8_t* b, __m512& scales, __m512& mins) {
    const __m512i both = _mm512_cvtepu8_epi32(kScaleBytes(b));
    const __m512 values = _mm512_cvtepi32_ps(both); // lanes 0-7 scales, 8-15 mins
    const __m512 factors = pairLanes(fp16ToFloatFast(u16(b)), -fp16ToFloatFast(u16(b + 2)));
    scales = _mm512_mul_ps(values, factors);
    mins = scales; // same vector: callers index lanes 8-15 for the mins
}
__m512i pairIndex(int j) {
    return _mm512_inserti64x4(_mm512_zextsi256_si512(_mm256_set1_epi32(j)), _mm256_set1_epi32(j + 1), 1);
}

template <bool HighBits> struct KQuant {
    static constexpr bool asym = true;
    static constexpr float offset = 0.0f;
    static constexpr std::int64_t kBytes = HighBits ? 176 : 144;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t, std::int64_t c0, std::int64_t c1, float* mins,
                      Sink&& sink) {
        for (std::int64_t s = c0 / 4; s < c1 / 4; ++s) {
            const std::uint8_t* b = row + kBytes * s;
            __m512 scv, mnv;
            kScales(b, scv, mnv);
            // Lanes 8-15 hold the eight sub-block minima (already times -dmin).
            _mm256_storeu_ps(mins + 2 * (4 * s - c0),
                             _mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(mnv), 1)));
            const std::uint8_t* qs = b + (HighBits ? 48 : 16);
            __m256i high = _mm256_setzero_si256();
            if constexpr (HighBits)
                high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 16));
            for (int c = 0; c < 4; ++c) {
                __m512i q = nibbleHalves(qs + 32 * c);
                if constexpr (HighBits) {
                    const std::uint64_t lo =
                        _mm256_test_epi8_mask(high, _mm256_set1_epi8(static_cast<char>(1 << (2 * c))));
                    const std::uint64_t hi =
                        _mm256_test_epi8_mask(high, _mm256_set1_epi8(static_cast<char>(1 << (2 * c + 1))));
                    q = _mm512_mask_add_epi8(q, lo | (hi << 32), q, _mm512_set1_epi8(0x10));
                }
                sink(4 * s + c - c0, q, _mm512_permutexvar_ps(pairIndex(2 * c), scv));
            }
        }
    }
};
using Q4_K = KQuant<false>;
using Q5_K = KQuant<true>;

struct Q6_K {
    static constexpr bool asym = false;
    static constexpr float offset = 32.0f;
    static void decode(const std::uint8_t* row, std::int64_t, std::int64_t c0, std::int64_t c1, Decoded* out,
                       float*) {
        const __m512i low4 = _mm512_set1_epi8(0x0F);
        const __m512i low2 = _mm512_set1_epi8(3);
        for (std::int64_t s = c0 / 4; s < c1 / 4; ++s) {
            const std::uint8_t* b = row + 210 * s;
            const float d = fp16ToFloatFast(u16(b + 208));
            const __m512 scales =
                _mm512_mul_ps(_mm512_set1_ps(d), _mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(_mm_loadu_si128(
                                                     reinterpret_cast<const __m128i*>(b + 192)))));
            for (int h = 0; h < 2; ++h) {
                const __m512i ql = _mm512_loadu_si512(b + 64 * h);
                const __m256i qh = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 128 + 32 * h));
                const __m512i hA =
                    _mm512_inserti64x4(_mm512_zextsi256_si512(qh), _mm256_srli_epi16(qh, 2), 1);
                const __m512i hB = _mm512_srli_epi16(hA, 4);
                const __m512i qa = _mm512_or_si512(_mm512_and_si512(ql, low4),
                                                   _mm512_slli_epi16(_mm512_and_si512(hA, low2), 4));
                const __m512i qb = _mm512_or_si512(_mm512_and_si512(_mm512_srli_epi16(ql, 4), low4),
                                                   _mm512_slli_epi16(_mm512_and_si512(hB, low2), 4));
                for (int part = 0; part < 2; ++part) {
                    const int chunk = 2 * h + part; // 16-element scale groups 4*chunk .. 4*chunk+3
                    const __m512i idx = _mm512_add_epi32(
                        _mm512_set1_epi32(4 * chunk),
                        _mm512_srli_epi32(
                            _mm512_set_epi32(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0), 2));
                    finish(out[4 * s + chunk - c0], part ? qb : qa, _mm512_permutexvar_ps(idx, scales));
                }
            }
        }
    }
};

// Lane i of a chunk takes the scale of its 16-column group: 4 * chunk + i / 4 of a block's 16.
__m512i groupIndex(int chunk) {
    return _mm512_add_epi32(
        _mm512_set1_epi32(4 * chunk),
        _mm512_srli_epi32(_mm512_set_epi32(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0), 2));
}

// Q2_K and Q3_K: the two low bits of the 64 values of chunk c of a block (see lowBitsByte).
__m512i lowBitPairs(const std::uint8_t* codes, int c) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(codes + lowBitsByte(64 * c)));
    const int shift = lowBitsShift(64 * c);
    const __m512i both =
        _mm512_inserti64x4(_mm512_zextsi256_si512(_mm256_srl_epi16(v, _mm_cvtsi32_si128(shift))),
                           _mm256_srl_epi16(v, _mm_cvtsi32_si128(shift + 2)), 1);
    return _mm512_and_si512(both, _mm512_set1_epi8(3));
}

struct Q2_K {
    static constexpr bool asym = true;
    static constexpr float offset = 0.0f;
    static constexpr int kMinsPerChunk = 4; // a minimum per 16 columns
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t, std::int64_t c0, std::int64_t c1, float* mins,
                      Sink&& sink) {
        for (std::int64_t s = c0 / 4; s < c1 / 4; ++s) {
            const std::uint8_t* b = row + 84 * s;
            const __m128i packed = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
            const __m128i low4 = _mm_set1_epi8(0x0F);
            const __m512 scales =
                _mm512_mul_ps(_mm512_set1_ps(fp16ToFloatFast(u16(b + kQ2KScale))),
                              _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(_mm_and_si128(packed, low4))));
            _mm512_storeu_ps(mins + 4 * (4 * s - c0),
                             _mm512_mul_ps(_mm512_set1_ps(-fp16ToFloatFast(u16(b + kQ2KMin))),
                                           _mm512_cvtepi32_ps(_mm512_cvtepu8_epi32(
                                               _mm_and_si128(_mm_srli_epi16(packed, 4), low4)))));
            for (int c = 0; c < 4; ++c)
                sink(4 * s + c - c0, lowBitPairs(b + kQ2KCodes, c),
                     _mm512_permutexvar_ps(groupIndex(c), scales));
        }
    }
};

struct Q3_K {
    static constexpr bool asym = false;
    static constexpr float offset = 4.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t, std::int64_t c0, std::int64_t c1, float*,
                      Sink&& sink) {
        for (std::int64_t s = c0 / 4; s < c1 / 4; ++s) {
            const std::uint8_t* b = row + 110 * s;
            std::uint64_t first, second;
            q3kBiasedScales(b + kQ3KScales, first, second);
            const __m128i biased =
                _mm_set_epi64x(static_cast<long long>(second), static_cast<long long>(first));
            const __m512 scales = _mm512_mul_ps(
                _mm512_set1_ps(fp16ToFloatFast(u16(b + kQ3KScale))),
                _mm512_cvtepi32_ps(_mm512_cvtepi8_epi32(_mm_sub_epi8(biased, _mm_set1_epi8(32)))));
            const __m256i high = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b));
            for (int c = 0; c < 4; ++c) {
                const std::uint64_t lo =
                    _mm256_test_epi8_mask(high, _mm256_set1_epi8(static_cast<char>(1 << (2 * c))));
                const std::uint64_t hi =
                    _mm256_test_epi8_mask(high, _mm256_set1_epi8(static_cast<char>(1 << (2 * c + 1))));
                const __m512i q = lowBitPairs(b + kQ3KCodes, c);
                sink(4 * s + c - c0, _mm512_mask_add_epi8(q, lo | (hi << 32), q, _mm512_set1_epi8(4)),
                     _mm512_permutexvar_ps(groupIndex(c), scales));
            }
        }
    }
};

// IQ4 codes become the grid levels plus 128, unsigned like Q8_0's.
inline __m512i iq4Levels(__m512i nibbles) {
    const __m512i grid = _mm512_xor_si512(
        _mm512_broadcast_i32x4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(kIq4Levels))),
        _mm512_set1_epi8(static_cast<char>(0x80)));
    return _mm512_shuffle_epi8(grid, nibbles);
}

struct IQ4_NL {
    static constexpr bool asym = false;
    static constexpr float offset = 128.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t nb, std::int64_t c0, std::int64_t c1, float*,
                      Sink&& sink) {
        for (std::int64_t c = c0; c < c1; ++c) {
            const std::uint8_t* p0 = row + 18 * (2 * c);
            const std::uint8_t* p1 = 2 * c + 1 < nb ? p0 + 18 : nullptr;
            sink(c - c0, iq4Levels(nibblePairs(p0 + 2, p1 ? p1 + 2 : nullptr)), pairHalves(p0, p1));
        }
    }
};

struct IQ4_XS {
    static constexpr bool asym = false;
    static constexpr float offset = 128.0f;
    template <class Sink>
    static void visit(const std::uint8_t* row, std::int64_t, std::int64_t c0, std::int64_t c1, float*,
                      Sink&& sink) {
        for (std::int64_t s = c0 / 4; s < c1 / 4; ++s) {
            const std::uint8_t* b = row + 136 * s;
            const __m128i biased = _mm_cvtsi64_si128(static_cast<long long>(iq4xsBiasedScales(b)));
            const __m512 scales = _mm512_castps256_ps512(_mm256_mul_ps(
                _mm256_set1_ps(fp16ToFloatFast(u16(b))),
                _mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(_mm_sub_epi8(biased, _mm_set1_epi8(32))))));
            const std::uint8_t* qs = b + kIq4XsCodes;
            for (int c = 0; c < 4; ++c) {
                sink(4 * s + c - c0, iq4Levels(nibblePairs(qs + 32 * c, qs + 32 * c + 16)),
                     _mm512_permutexvar_ps(pairIndex(2 * c), scales));
            }
        }
    }
};

// Most decoders hand each chunk to a sink (its index from c0, codes, scales): the tiles store the
// chunks, the one-token rows use them at once.
template <class Format>
inline __attribute__((always_inline)) void decodeChunks(const std::uint8_t* row, std::int64_t nb,
                                                        std::int64_t c0, std::int64_t c1, Decoded* out,
                                                        float* mins) {
    if constexpr (requires { &Format::decode; }) {
        Format::decode(row, nb, c0, c1, out, mins);
    } else {
        Format::visit(row, nb, c0, c1, mins,
                      [out](std::int64_t k, __m512i q, __m512 ws) { finish(out[k], q, ws); });
    }
}

// ---- tiles -----------------------------------------------------------------------------------

// One 64-column chunk of one token's activations with everything the tiles need from it:
// computed once per token (tile) and reused by every row tile. Q8_0's layout (x, dx per lane and,
// for symmetric formats, bias = -offset * dx * the lane's code sum) serves every format; Q8_0's own
// come prepared with the activations.
using TokenChunk = Q8TokenChunk;

// Formats with a minimum keep one per 32 columns, or per 16 where they say so.
template <class Format> constexpr int minsPerChunk() {
    if constexpr (requires { Format::kMinsPerChunk; })
        return Format::kMinsPerChunk;
    else
        return 2;
}

// Padded length of the per-group arrays (minima, activation group sums) of a row.
std::int64_t blockArrayLength(std::int64_t nChunks, int perChunk) {
    return (perChunk * nChunks + 15) / 16 * 16;
}

// Also writes, for formats with a minimum, dx * (sum of the group's codes) per minimum's group of
// columns to `blockSums` (zero padded to blockArrayLength).
template <class Format>
void prepareTokenChunks(const ActivationBuffer& x, std::int64_t token, std::int64_t nChunks, TokenChunk* out,
                        float* blockSums) {
    const __m512i ones = _mm512_set1_epi8(1);
    const __m512i pairIdx = pairIndex(0);
    const std::int8_t* codes = x.codes(token);
    const float* scales = x.blockScales(token);
    constexpr int per = minsPerChunk<Format>();
    constexpr unsigned groupLanes = (1u << (16 / per)) - 1;
    for (std::int64_t c = 0; c < nChunks; ++c) {
        const __m512i xs = _mm512_loadu_si512(codes + kChunk * c);
        const __m512 dx = _mm512_permutexvar_ps(
            pairIdx, _mm512_zextps128_ps512(
                         _mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(scales + 2 * c)))));
        const __m512 sums = _mm512_cvtepi32_ps(_mm512_dpbusd_epi32(_mm512_setzero_si512(), ones, xs));
        _mm512_store_si512(out[c].x, xs);
        _mm512_store_ps(out[c].dx, dx);
        if constexpr (Format::asym) {
            const __m512 scaled = _mm512_mul_ps(dx, sums);
            for (int g = 0; g < per; ++g) {
                blockSums[per * c + g] =
                    _mm512_mask_reduce_add_ps(static_cast<__mmask16>(groupLanes << (16 / per * g)), scaled);
            }
        } else {
            _mm512_store_ps(out[c].bias,
                            _mm512_mul_ps(_mm512_mul_ps(dx, _mm512_set1_ps(-Format::offset)), sums));
        }
    }
    if constexpr (Format::asym) {
        for (std::int64_t i = per * nChunks; i < blockArrayLength(nChunks, per); ++i)
            blockSums[i] = 0.0f;
    }
}

// acc += one decoded chunk (codes q, scales ws) times a token's chunk (codes xs), lane-wise.
template <class Format>
inline __attribute__((always_inline)) void addChunk(__m512& acc, __m512i q, __m512 ws, __m512i xs,
                                                    const TokenChunk& tc) {
    const __m512 dot = _mm512_cvtepi32_ps(_mm512_dpbusd_epi32(_mm512_setzero_si512(), q, xs));
    if constexpr (Format::asym) {
        acc = _mm512_fmadd_ps(ws, _mm512_mul_ps(_mm512_load_ps(tc.dx), dot), acc);
    } else {
        acc = _mm512_fmadd_ps(ws, _mm512_fmadd_ps(_mm512_load_ps(tc.dx), dot, _mm512_load_ps(tc.bias)), acc);
    }
}

// acc[r][t] += the dot products of chunks [c0, c0 + n) of rows[r] and tokens[t], lane-wise.
template <class Format, int R, int T>
inline __attribute__((always_inline)) void accumulate(__m512 (&acc)[R][T], const Decoded* const* rows,
                                                      const TokenChunk* const* tokens, std::int64_t c0,
                                                      std::int64_t n) {
    for (std::int64_t k = 0; k < n; ++k) {
        const std::int64_t c = c0 + k;
        __m512i xs[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            xs[t] = _mm512_load_si512(tokens[t][c].x);
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            const Decoded& d = rows[r][k];
            const __m512i q = _mm512_load_si512(d.q);
            const __m512 ws = _mm512_load_ps(d.ws);
#pragma GCC unroll 8
            for (int t = 0; t < T; ++t)
                addChunk<Format>(acc[r][t], q, ws, xs[t], tokens[t][c]);
        }
    }
}

// acc[r][t] += minima of rows[r] . block sums of tokens[t] over `n` floats (a multiple of 16).
template <int R, int T>
inline __attribute__((always_inline)) void addMinima(__m512 (&acc)[R][T], const float* const* mins,
                                                     const float* const* sums, std::int64_t n) {
    for (std::int64_t k = 0; k < n; k += 16) {
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            const __m512 m = _mm512_loadu_ps(mins[r] + k);
#pragma GCC unroll 8
            for (int t = 0; t < T; ++t)
                acc[r][t] = _mm512_fmadd_ps(m, _mm512_loadu_ps(sums[t] + k), acc[r][t]);
        }
    }
}

template <int R, int T>
inline __attribute__((always_inline)) void storeTile(__m512 (&acc)[R][T], float* y, std::int64_t ldy,
                                                     std::int64_t row, std::int64_t token) {
#pragma GCC unroll 8
    for (int r = 0; r < R; ++r) {
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            y[(token + t) * ldy + row + r] = _mm512_reduce_add_ps(acc[r][t]);
    }
}

// Q8_0 activation chunks of every token, prepared with the activations or, where the buffer was
// prepared for another path, here per call.
struct SharedTokens {
    const TokenChunk* chunks = nullptr;
    std::int64_t stride = 0;
};
SharedTokens sharedQ8Tokens(const ActivationBuffer& x) {
    const std::int64_t stride = x.paddedCols() / 64;
    if (x.hasQ8TokenChunks())
        return {x.q8TokenChunks(0), stride};
    thread_local std::vector<TokenChunk> own;
    own.resize(static_cast<std::size_t>(x.tokens() * stride));
    for (std::int64_t t = 0; t < x.tokens(); ++t)
        prepareQ8TokenChunks(x.codes(t), x.blockScales(t), x.paddedCols(), own.data() + t * stride);
    return {own.data(), stride};
}

// Per-thread working memory of one product.
struct Buffers {
    Decoded* decoded;         // decoded rows, rowStride chunks apart
    float* mins;              // minima of those rows, minsStride floats apart
    TokenChunk* tokens;       // activation chunks of the current token tile, nChunks apart
    float* sums;              // activation group sums of the tile, sumsStride() apart
    const TokenChunk* shared; // Q8_0: every token's chunks, sharedStride apart
    std::int64_t sharedStride;
};

template <class Format> struct QuantKernel {
    const WeightMatrix& w;
    const ActivationBuffer& x;
    float* y;
    std::int64_t ldy;
    std::int64_t nb;      // 32-element blocks per row
    std::int64_t nChunks; // 64-column chunks per row

    std::int64_t panelStride() const { return nChunks | 1; }
    static constexpr int kMins = minsPerChunk<Format>();
    std::int64_t sumsStride() const { return blockArrayLength(nChunks, kMins); }
    static constexpr std::int64_t kStreamMins = kMins * kStreamChunks; // a multiple of 16

    const std::uint8_t* row(std::int64_t r) const {
        return static_cast<const std::uint8_t*>(w.data) + static_cast<std::size_t>(r) * w.rowBytes;
    }

    // Decodes chunks [c0, c1) of a row; minima beyond them, up to `minsLength`, are zeroed.
    void decode(std::int64_t r, std::int64_t c0, std::int64_t c1, Decoded* out, float* mins,
                std::int64_t minsLength) const {
        decodeChunks<Format>(row(r), nb, c0, c1, out, mins);
        if constexpr (Format::asym) {
            for (std::int64_t i = kMins * (c1 - c0); i < minsLength; ++i)
                mins[i] = 0.0f;
        }
    }

    // Q8_0 tokens come prepared once for the whole product (see Q8TokenChunk.h); the rest are
    // prepared per token tile.
    static constexpr bool kSharedTokens = std::is_same_v<Format, Q8_0>;
    const TokenChunk* tokenChunks(const Buffers& b, std::int64_t t0, int t) const {
        if constexpr (kSharedTokens)
            return b.shared + (t0 + t) * b.sharedStride;
        else
            return b.tokens + t * nChunks;
    }

    template <int T> void prepareTokens(std::int64_t t0, const Buffers& b) const {
        if constexpr (kSharedTokens)
            return;
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t) {
            prepareTokenChunks<Format>(x, t0 + t, nChunks, b.tokens + t * nChunks, b.sums + t * sumsStride());
        }
    }

    // Few tokens: stream each row once, decoding a few chunks at a time into L1.
    template <int R, int T> void streamTile(std::int64_t r0, const Buffers& b) const {
        __m512 acc[R][T];
#pragma GCC unroll 8
        for (auto& a : acc)
#pragma GCC unroll 8
            for (auto& v : a)
                v = _mm512_setzero_ps();
        const TokenChunk* tokens[T];
        const float* sums[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            tokens[t] = tokenChunks(b, 0, t);
        const Decoded* rows[R];
        const float* mins[R];
#pragma GCC unroll 8
        for (int r = 0; r < R; ++r) {
            rows[r] = b.decoded + r * kStreamStride;
            mins[r] = b.mins + r * kStreamMins;
        }
        for (std::int64_t c0 = 0; c0 < nChunks; c0 += kStreamChunks) {
            const std::int64_t n = std::min(kStreamChunks, nChunks - c0);
#pragma GCC unroll 8
            for (int r = 0; r < R; ++r) {
                decode(r0 + r, c0, c0 + n, b.decoded + r * kStreamStride, b.mins + r * kStreamMins,
                       kStreamMins);
            }
            accumulate<Format, R, T>(acc, rows, tokens, c0, n);
            if constexpr (Format::asym) {
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t)
                    sums[t] = b.sums + t * sumsStride() + kMins * c0;
                addMinima<R, T>(acc, mins, sums, (kMins * n + 15) / 16 * 16);
            }
        }
        storeTile<R, T>(acc, y, ldy, r0, 0);
    }

    // One token: each chunk goes from the decoder straight into the product, in registers; the
    // operations and their order are streamTile<1, 1>'s.
    static constexpr bool kVisits = !requires {
        &Format::decode;
    };
    void visitRow(std::int64_t r, const Buffers& b) const {
        __m512 acc[1][1] = {{_mm512_setzero_ps()}};
        alignas(64) float mins[kStreamMins];
        for (std::int64_t c0 = 0; c0 < nChunks; c0 += kStreamChunks) {
            const std::int64_t n = std::min(kStreamChunks, nChunks - c0);
            const TokenChunk* tokens = b.tokens + c0;
            Format::visit(row(r), nb, c0, c0 + n, mins, [&](std::int64_t k, __m512i q, __m512 ws) {
                addChunk<Format>(acc[0][0], q, ws, _mm512_load_si512(tokens[k].x), tokens[k]);
            });
            if constexpr (Format::asym) {
                for (std::int64_t i = kMins * n; i < kStreamMins; ++i)
                    mins[i] = 0.0f;
                const float* rowMins[1] = {mins};
                const float* sums[1] = {b.sums + kMins * c0};
                addMinima<1, 1>(acc, rowMins, sums, (kMins * n + 15) / 16 * 16);
            }
        }
        storeTile<1, 1>(acc, y, ldy, r, 0);
    }

    template <int T> void streamRows(std::int64_t rowBegin, std::int64_t rowEnd, const Buffers& b) const {
        prepareTokens<T>(0, b);
        std::int64_t r = rowBegin;
        for (; r + kRowTile <= rowEnd; r += kRowTile)
            streamTile<kRowTile, T>(r, b);
        for (; r < rowEnd; ++r)
            streamTile<1, T>(r, b);
    }

    // Many tokens: decode a panel of rows whole, then sweep token tiles over it.
    template <int R, int T>
    void panelTile(std::int64_t r0, std::int64_t panelRow, std::int64_t t0, const Buffers& b) const {
        __m512 acc[R][T];
#pragma GCC unroll 8
        for (auto& a : acc)
#pragma GCC unroll 8
            for (auto& v : a)
                v = _mm512_setzero_ps();
        const TokenChunk* tokens[T];
        const float* sums[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t) {
            tokens[t] = tokenChunks(b, t0, t);
            sums[t] = b.sums + t * sumsStride();
        }
        // The minima join in the streamed tiles' order, so a token's result does not depend on
        // which of the two served it.
        for (std::int64_t c0 = 0; c0 < nChunks; c0 += kStreamChunks) {
            const std::int64_t n = std::min(kStreamChunks, nChunks - c0);
            const Decoded* rows[R];
            const float* mins[R];
            const float* sumsFrom[T];
#pragma GCC unroll 8
            for (int r = 0; r < R; ++r) {
                rows[r] = b.decoded + (panelRow + r) * panelStride() + c0;
                mins[r] = b.mins + (panelRow + r) * sumsStride() + kMins * c0;
            }
            accumulate<Format, R, T>(acc, rows, tokens, c0, n);
            if constexpr (Format::asym) {
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t)
                    sumsFrom[t] = sums[t] + kMins * c0;
                addMinima<R, T>(acc, mins, sumsFrom, (kMins * n + 15) / 16 * 16);
            }
        }
        storeTile<R, T>(acc, y, ldy, r0 + panelRow, t0);
    }

    template <int T>
    void panelTokens(std::int64_t r0, std::int64_t m, std::int64_t t0, const Buffers& b) const {
        prepareTokens<T>(t0, b);
        std::int64_t r = 0;
        for (; r + kRowTile <= m; r += kRowTile)
            panelTile<kRowTile, T>(r0, r, t0, b);
        for (; r < m; ++r)
            panelTile<1, T>(r0, r, t0, b);
    }

    void run(std::int64_t rowBegin, std::int64_t rowEnd) const {
        thread_local std::vector<Decoded> decoded;
        thread_local std::vector<float> mins;
        thread_local std::vector<TokenChunk> tokenChunks;
        thread_local std::vector<float> sums;
        const std::int64_t tokens = x.tokens();
        const std::int64_t tileTokens = std::min<std::int64_t>(tokens, kTokenTile);
        tokenChunks.resize(static_cast<std::size_t>(tileTokens * nChunks));
        sums.resize(static_cast<std::size_t>(tileTokens * sumsStride()));
        const SharedTokens shared = kSharedTokens ? sharedQ8Tokens(x) : SharedTokens{};
        if (tokens <= kTokenTile) {
            decoded.resize(static_cast<std::size_t>(kRowTile * kStreamStride));
            mins.resize(static_cast<std::size_t>(kRowTile * kStreamMins));
            const Buffers b{decoded.data(), mins.data(),   tokenChunks.data(),
                            sums.data(),    shared.chunks, shared.stride};
            switch (tokens) {
            case 1:
                if constexpr (kVisits) {
                    prepareTokens<1>(0, b);
                    for (std::int64_t r = rowBegin; r < rowEnd; ++r)
                        visitRow(r, b);
                } else {
                    streamRows<1>(rowBegin, rowEnd, b);
                }
                break;
            case 2:
                streamRows<2>(rowBegin, rowEnd, b);
                break;
            case 3:
                streamRows<3>(rowBegin, rowEnd, b);
                break;
            default:
                streamRows<4>(rowBegin, rowEnd, b);
                break;
            }
            return;
        }
        decoded.resize(static_cast<std::size_t>(kPanelRows * panelStride()));
        mins.resize(static_cast<std::size_t>(kPanelRows * sumsStride()));
        const Buffers b{decoded.data(), mins.data(),   tokenChunks.data(),
                        sums.data(),    shared.chunks, shared.stride};
        const std::int64_t tiles = (tokens + kTokenTile - 1) / kTokenTile;
        for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kPanelRows) {
            const std::int64_t m = std::min(kPanelRows, rowEnd - r0);
            for (std::int64_t r = 0; r < m; ++r) {
                decode(r0 + r, 0, nChunks, b.decoded + r * panelStride(), b.mins + r * sumsStride(),
                       sumsStride());
            }
            const std::int64_t nextBytes =
                std::min(kPanelRows, rowEnd - r0 - m) * static_cast<std::int64_t>(w.rowBytes);
            std::int64_t t0 = 0;
            for (; t0 + kTokenTile <= tokens; t0 += kTokenTile) {
                prefetchShare(row(r0 + m), nextBytes, t0 / kTokenTile, tiles);
                panelTokens<kTokenTile>(r0, m, t0, b);
            }
            switch (tokens - t0) {
            case 1:
                panelTokens<1>(r0, m, t0, b);
                break;
            case 2:
                panelTokens<2>(r0, m, t0, b);
                break;
            case 3:
                panelTokens<3>(r0, m, t0, b);
                break;
            default:
                break;
            }
        }
    }
};

// ---- one token against K-quant rows ---------------------------------------------------------

// See KQuantToken.h. A block's integer sum is VPMADDUBSW of the unsigned weight codes with the
// activation codes (pairs stay below 2 * 63 * 127, so they never saturate) and VPDPWSSD of those
// pairs with each lane's sub-block scale, spread from one 16-byte vector by VPSHUFB.

// VPSHUFB control giving every word of lanes 0-15 byte `first` and of lanes 16-31 byte `second`
// of each 128-bit lane, zero-extended.
__m512i spreadBytes(int first, int second) {
    return _mm512_inserti64x4(_mm512_zextsi256_si512(_mm256_set1_epi16(static_cast<short>(0x8000 | first))),
                              _mm256_set1_epi16(static_cast<short>(0x8000 | second)), 1);
}
// VPSHUFB control giving every word of 128-bit lane L word `first + L` of that lane.
__m512i spreadWords(int first) {
    const auto word = [](int w) { return static_cast<short>((2 * w) | ((2 * w + 1) << 8)); };
    return _mm512_inserti64x4(
        _mm512_castsi256_si512(
            _mm256_set_m128i(_mm_set1_epi16(word(first + 1)), _mm_set1_epi16(word(first)))),
        _mm256_set_m128i(_mm_set1_epi16(word(first + 3)), _mm_set1_epi16(word(first + 2))), 1);
}

// sums[t][0] and sums[t][1] += the integer products of the two 64-code vectors of half `h` of
// block `s` with token t's codes, each pair of products times its lane's scale. Two chains, so
// a block's sums wait on two multiply-adds rather than four.
template <int T>
inline __attribute__((always_inline)) void
addHalfBlock(__m512i (&sums)[T][2], __m512i first, __m512i second, __m512i firstScales, __m512i secondScales,
             const KQuantToken* const* tok, std::int64_t s, int h) {
#pragma GCC unroll 4
    for (int t = 0; t < T; ++t) {
        const std::int8_t* x = tok[t][s].x + 128 * h;
        sums[t][0] =
            _mm512_dpwssd_epi32(sums[t][0], _mm512_maddubs_epi16(first, _mm512_load_si512(x)), firstScales);
        sums[t][1] = _mm512_dpwssd_epi32(sums[t][1], _mm512_maddubs_epi16(second, _mm512_load_si512(x + 64)),
                                         secondScales);
    }
}

// T tokens at once share each block's decoding; every token keeps its own accumulators and
// operation order, the same as when it is alone.
template <int T>
void rowQ4K(const std::uint8_t* row, std::int64_t nSuper, const KQuantToken* const* tok, float* out) {
    const __m512i low4 = _mm512_set1_epi8(0x0F);
    const __m512i spread[4] = {spreadBytes(0, 2), spreadBytes(1, 3), spreadBytes(4, 6), spreadBytes(5, 7)};
    __m512 acc[T];
    __m128 accMin[T];
#pragma GCC unroll 4
    for (int t = 0; t < T; ++t) {
        acc[t] = _mm512_setzero_ps();
        accMin[t] = _mm_setzero_ps();
    }
    for (std::int64_t s = 0; s < nSuper; ++s) {
        const std::uint8_t* b = row + 144 * s;
        prefetchBlockAhead<144>(b);
        const __m128i scaleBytes = kScaleBytes(b);
        const __m512i lanes = _mm512_broadcast_i32x4(scaleBytes);
        __m512i sums[T][2];
#pragma GCC unroll 4
        for (int t = 0; t < T; ++t)
            sums[t][0] = sums[t][1] = _mm512_setzero_si512();
#pragma GCC unroll 2
        for (int h = 0; h < 2; ++h) {
            const __m512i q = _mm512_loadu_si512(b + 16 + 64 * h);
            const __m512i lo = _mm512_and_si512(q, low4);
            const __m512i hi = _mm512_and_si512(_mm512_srli_epi16(q, 4), low4);
            const __m512i scLo = _mm512_shuffle_epi8(lanes, spread[2 * h]);
            const __m512i scHi = _mm512_shuffle_epi8(lanes, spread[2 * h + 1]);
            addHalfBlock<T>(sums, lo, hi, scLo, scHi, tok, s, h);
        }
        // The minima meet the sub-block code sums in one short integer dot product.
        const __m128i mins = _mm_cvtepu8_epi16(_mm_srli_si128(scaleBytes, 8));
        const float d = fp16ToFloatFast(u16(b)), dmin = -fp16ToFloatFast(u16(b + 2));
#pragma GCC unroll 4
        for (int t = 0; t < T; ++t) {
            const float dx = tok[t][s].dx;
            acc[t] = _mm512_fmadd_ps(_mm512_cvtepi32_ps(_mm512_add_epi32(sums[t][0], sums[t][1])),
                                     _mm512_set1_ps(d * dx), acc[t]);
            const __m128i m =
                _mm_madd_epi16(mins, _mm_load_si128(reinterpret_cast<const __m128i*>(tok[t][s].sums)));
            accMin[t] = _mm_fmadd_ps(_mm_cvtepi32_ps(m), _mm_set1_ps(dmin * dx), accMin[t]);
        }
    }
#pragma GCC unroll 4
    for (int t = 0; t < T; ++t)
        out[t] = _mm512_reduce_add_ps(_mm512_add_ps(acc[t], _mm512_zextps128_ps512(accMin[t])));
}

template <int T>
void rowQ6K(const std::uint8_t* row, std::int64_t nSuper, const KQuantToken* const* tok, float* out) {
    const __m512i low4 = _mm512_set1_epi8(0x0F);
    const __m512i topBits = _mm512_set1_epi8(0x33);
    constexpr int kSelectByC = 0xE4; // c ? a : b, bit by bit
    // Each 64-code vector holds four 16-column groups, one per 128-bit lane of the pair sums.
    const __m512i spread[2] = {spreadWords(0), spreadWords(4)};
    __m512 acc[T];
#pragma GCC unroll 4
    for (int t = 0; t < T; ++t)
        acc[t] = _mm512_setzero_ps();
    for (std::int64_t s = 0; s < nSuper; ++s) {
        const std::uint8_t* b = row + 210 * s;
        prefetchBlockAhead<210>(b);
        const __m256i scales =
            _mm256_cvtepi8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(b + 192)));
        const __m512i halves[2] = {_mm512_broadcast_i32x4(_mm256_castsi256_si128(scales)),
                                   _mm512_broadcast_i32x4(_mm256_extracti128_si256(scales, 1))};
        // The codes' offset of 32 meets the group code sums first: -32 * scale fits 16 bits.
        const __m256i offsetScales = _mm256_sub_epi16(_mm256_setzero_si256(), _mm256_slli_epi16(scales, 5));
        __m512i sums[T][2];
#pragma GCC unroll 4
        for (int t = 0; t < T; ++t) {
            sums[t][1] = _mm512_setzero_si512();
            sums[t][0] = _mm512_zextsi256_si512(_mm256_madd_epi16(
                offsetScales, _mm256_load_si256(reinterpret_cast<const __m256i*>(tok[t][s].sums))));
        }
#pragma GCC unroll 2
        for (int h = 0; h < 2; ++h) {
            const __m512i ql = _mm512_loadu_si512(b + 64 * h);
            const __m256i qh = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(b + 128 + 32 * h));
            // Bits 0-1 of each byte of `high` are the top bits of qa's code, bits 4-5 of qb's; a bit
            // select puts them above the low nibbles, whatever the shifts moved in beside them.
            const __m512i high = _mm512_and_si512(
                _mm512_inserti64x4(_mm512_zextsi256_si512(qh), _mm256_srli_epi16(qh, 2), 1), topBits);
            const __m512i qa = _mm512_ternarylogic_epi32(ql, _mm512_slli_epi16(high, 4), low4, kSelectByC);
            const __m512i qb = _mm512_ternarylogic_epi32(_mm512_srli_epi16(ql, 4), high, low4, kSelectByC);
            const __m512i scA = _mm512_shuffle_epi8(halves[h], spread[0]);
            const __m512i scB = _mm512_shuffle_epi8(halves[h], spread[1]);
            addHalfBlock<T>(sums, qa, qb, scA, scB, tok, s, h);
        }
        const float d = fp16ToFloatFast(u16(b + 208));
#pragma GCC unroll 4
        for (int t = 0; t < T; ++t)
            acc[t] = _mm512_fmadd_ps(_mm512_cvtepi32_ps(_mm512_add_epi32(sums[t][0], sums[t][1])),
                                     _mm512_set1_ps(d * tok[t][s].dx), acc[t]);
    }
#pragma GCC unroll 4
    for (int t = 0; t < T; ++t)
        out[t] = _mm512_reduce_add_ps(acc[t]);
}

constexpr KQuantRows kQ4KGroup[] = {rowQ4K<1>, rowQ4K<2>, rowQ4K<3>, rowQ4K<4>};
constexpr KQuantRows kQ6KGroup[] = {rowQ6K<1>, rowQ6K<2>, rowQ6K<3>, rowQ6K<4>};

// One token against Q8_0 rows, straight from the blocks like the K-quants above. The arithmetic
// is the tiles' own, in the same order, so a token's result does not depend on how many tokens
// share the product. The token's lane sums and bias are recomputed for every row: taking them
// prepared (Q8TokenChunk, as the tiles do) ran a third faster from cache but slower from memory,
// with three cache lines of token data per 64 columns of weights instead of one.

// The unsigned codes (plus 128) of blocks i and i + 1 at p (zero for a missing second block).
inline __attribute__((always_inline)) __m512i q8Codes(const std::uint8_t* p, bool two) {
    const __m256i a = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 2));
    const __m256i b =
        two ? _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 36)) : _mm256_setzero_si256();
    return _mm512_xor_si512(_mm512_inserti64x4(_mm512_zextsi256_si512(a), b, 1),
                            _mm512_set1_epi8(static_cast<char>(0x80)));
}

// acc += two blocks of a row (codes q, block scales ws per lane) times the token's codes and
// their two block scales dx.
inline __attribute__((always_inline)) void q8Pair(__m512& acc, __m512i q, __m512 ws, const std::int8_t* codes,
                                                  const float* dx) {
    const __m512i xs = _mm512_loadu_si512(codes);
    const __m512 dxPair = _mm512_permutexvar_ps(
        pairIndex(0),
        _mm512_zextps128_ps512(_mm_castpd_ps(_mm_load_sd(reinterpret_cast<const double*>(dx)))));
    const __m512 sums =
        _mm512_cvtepi32_ps(_mm512_dpbusd_epi32(_mm512_setzero_si512(), _mm512_set1_epi8(1), xs));
    const __m512 bias = _mm512_mul_ps(_mm512_mul_ps(dxPair, _mm512_set1_ps(-Q8_0::offset)), sums);
    const __m512 dot = _mm512_cvtepi32_ps(_mm512_dpbusd_epi32(_mm512_setzero_si512(), q, xs));
    acc = _mm512_fmadd_ps(ws, _mm512_fmadd_ps(dxPair, dot, bias), acc);
}

float rowQ8_0(const std::uint8_t* row, std::int64_t blocks, const std::int8_t* codes, const float* dx) {
    __m512 acc = _mm512_setzero_ps();
    std::int64_t i = 0;
    for (; i + 1 < blocks; i += 2) {
        const std::uint8_t* p = row + 34 * i;
        prefetchBlockAhead<68>(p);
        q8Pair(acc, q8Codes(p, true), pairHalves(p, p + 34), codes + 32 * i, dx + i);
    }
    if (i < blocks) // an odd last block
        q8Pair(acc, q8Codes(row + 34 * i, false), pairHalves(row + 34 * i, nullptr), codes + 32 * i, dx + i);
    return _mm512_reduce_add_ps(acc);
}

void oneTokenQ8_0(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, float* y) {
    const auto* base = static_cast<const std::uint8_t*>(w.data);
    for (std::int64_t r = rowBegin; r < rowEnd; ++r) {
        y[r] = rowQ8_0(base + static_cast<std::size_t>(r) * w.rowBytes, w.cols / 32, x.codes(0),
                       x.blockScales(0));
    }
}

// Rows of whole 256-column groups round like the prompt panels (RowPanels.h), whatever the
// batch: per block the exact integer dot product, then acc = fma(sum, dw * dx, acc) in block
// order, so a prompt and the tokens generated after it see the same rounding. Eight blocks'
// lane sums are folded into one vector before the ordered float work.

// Lane 4j of the result: block 2j's sum; lane 8 + 4j: block 2j + 1's (v[j] holds blocks 2j, 2j + 1).
inline __attribute__((always_inline)) __m512i eightBlockSums(const __m512i (&v)[4]) {
    const __m512i a = _mm512_add_epi32(_mm512_unpacklo_epi32(v[0], v[1]), _mm512_unpackhi_epi32(v[0], v[1]));
    const __m512i b = _mm512_add_epi32(_mm512_unpacklo_epi32(v[2], v[3]), _mm512_unpackhi_epi32(v[2], v[3]));
    const __m512i z = _mm512_add_epi32(_mm512_unpacklo_epi64(a, b), _mm512_unpackhi_epi64(a, b));
    return _mm512_add_epi32(z, _mm512_shuffle_i32x4(z, z, 0xB1));
}

template <int T>
void rowQ8_0Grouped(const std::uint8_t* row, std::int64_t groups, const std::int8_t* const* codes,
                    const float* const* dx, const std::int32_t* const* bias, float* out) {
    // Lanes of eightBlockSums in block order.
    const __m512i inBlockOrder = _mm512_setr_epi32(0, 8, 1, 9, 2, 10, 3, 11, 0, 0, 0, 0, 0, 0, 0, 0);
    float acc[T] = {};
    for (std::int64_t g = 0; g < groups; ++g) {
        const std::uint8_t* p = row + 272 * g;
        prefetchBlockAhead<272>(p);
        __m512i q[4];
#pragma GCC unroll 4
        for (int c = 0; c < 4; ++c)
            q[c] = q8Codes(p + 68 * c, true);
        const __m256 dw = _mm256_cvtph_ps(
            _mm_setr_epi16(static_cast<short>(u16(p)), static_cast<short>(u16(p + 34)),
                           static_cast<short>(u16(p + 68)), static_cast<short>(u16(p + 102)),
                           static_cast<short>(u16(p + 136)), static_cast<short>(u16(p + 170)),
                           static_cast<short>(u16(p + 204)), static_cast<short>(u16(p + 238))));
#pragma GCC unroll 4
        for (int t = 0; t < T; ++t) {
            __m512i v[4];
#pragma GCC unroll 4
            for (int c = 0; c < 4; ++c)
                v[c] = _mm512_dpbusd_epi32(_mm512_setzero_si512(), q[c],
                                           _mm512_loadu_si512(codes[t] + 256 * g + 64 * c));
            const __m256i sums = _mm256_add_epi32(
                _mm512_castsi512_si256(_mm512_permutexvar_epi32(inBlockOrder, eightBlockSums(v))),
                _mm256_loadu_si256(reinterpret_cast<const __m256i*>(bias[t] + 8 * g)));
            alignas(32) float f[8], scale[8];
            _mm256_store_ps(f, _mm256_cvtepi32_ps(sums));
            _mm256_store_ps(scale, _mm256_mul_ps(dw, _mm256_loadu_ps(dx[t] + 8 * g)));
#pragma GCC unroll 8
            for (int k = 0; k < 8; ++k)
                acc[t] = __builtin_fmaf(f[k], scale[k], acc[t]);
        }
    }
#pragma GCC unroll 4
    for (int t = 0; t < T; ++t)
        out[t] = acc[t];
}

// Few tokens against Q8_0 rows of whole 256-column groups (x with panel sums), four at a time.
void groupedQ8_0(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                 float* y, std::int64_t ldy) {
    using Rows = void (*)(const std::uint8_t*, std::int64_t, const std::int8_t* const*, const float* const*,
                          const std::int32_t* const*, float*);
    constexpr Rows kRows[] = {rowQ8_0Grouped<1>, rowQ8_0Grouped<2>, rowQ8_0Grouped<3>, rowQ8_0Grouped<4>};
    const auto* base = static_cast<const std::uint8_t*>(w.data);
    for (std::int64_t t0 = 0; t0 < x.tokens(); t0 += 4) {
        const int n = static_cast<int>(std::min<std::int64_t>(4, x.tokens() - t0));
        const std::int8_t* codes[4];
        const float* dx[4];
        const std::int32_t* bias[4];
        for (int t = 0; t < n; ++t) {
            codes[t] = x.codes(t0 + t);
            dx[t] = x.blockScales(t0 + t);
            bias[t] = x.groupBias(t0 + t);
        }
        for (std::int64_t r = rowBegin; r < rowEnd; ++r) {
            float out[4];
            kRows[n - 1](base + static_cast<std::size_t>(r) * w.rowBytes, w.cols / 256, codes, dx, bias, out);
            for (int t = 0; t < n; ++t)
                y[(t0 + t) * ldy + r] = out[t];
        }
    }
}

template <class Format>
void runQuant(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
              float* y, std::int64_t ldy) {
    const QuantKernel<Format> kernel{w, x, y, ldy, w.cols / 32, (w.cols + kChunk - 1) / kChunk};
    kernel.run(rowBegin, rowEnd);
}

// ---- float weights ---------------------------------------------------------------------------

template <GgmlType Type> inline __m512 loadWeights(const std::uint8_t* row, std::int64_t k, __mmask16 mask) {
    if constexpr (Type == GgmlType::F32) {
        return _mm512_maskz_loadu_ps(mask, reinterpret_cast<const float*>(row) + k);
    } else if constexpr (Type == GgmlType::F16) {
        return _mm512_cvtph_ps(_mm256_maskz_loadu_epi16(mask, row + 2 * k));
    } else {
        return _mm512_castsi512_ps(
            _mm512_slli_epi32(_mm512_cvtepu16_epi32(_mm256_maskz_loadu_epi16(mask, row + 2 * k)), 16));
    }
}

// Float weights: rows x tokens tiles of FMAs. With many tokens, each panel of rows is first
// widened to F32 (copied, for F32) into L2 at an odd line stride, so the inner loop is loads and
// FMAs only and rows never share L1 sets the way rows a multiple of 4 KiB apart do.
struct FloatKernel {
    const WeightMatrix& w;
    const ActivationBuffer& x;
    float* y;
    std::int64_t ldy;

    template <GgmlType Type, int R, int T>
    void tile(const std::uint8_t* const* rows, std::int64_t r0, std::int64_t t0) const {
        __m512 acc[R][T];
#pragma GCC unroll 8
        for (auto& a : acc)
#pragma GCC unroll 8
            for (auto& v : a)
                v = _mm512_setzero_ps();
        const float* xs[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            xs[t] = x.values(t0 + t);
        const std::int64_t cols = w.cols; // a local, so the accumulators can stay in registers
        for (std::int64_t k = 0; k < cols; k += 16) {
            const __mmask16 mask = cols - k >= 16 ? __mmask16(0xFFFF) : __mmask16((1u << (cols - k)) - 1);
            __m512 xv[T];
#pragma GCC unroll 8
            for (int t = 0; t < T; ++t)
                xv[t] = _mm512_loadu_ps(xs[t] + k); // padded with zeros
#pragma GCC unroll 8
            for (int r = 0; r < R; ++r) {
                const __m512 wv = loadWeights<Type>(rows[r], k, mask);
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t)
                    acc[r][t] = _mm512_fmadd_ps(wv, xv[t], acc[r][t]);
            }
        }
        storeTile<R, T>(acc, y, ldy, r0, t0);
    }

    template <GgmlType Type, int T>
    void rowsOver(const std::uint8_t* const* rows, std::int64_t count, std::int64_t r0,
                  std::int64_t t0) const {
        std::int64_t r = 0;
        for (; r + kRowTile <= count; r += kRowTile)
            tile<Type, kRowTile, T>(rows + r, r0 + r, t0);
        for (; r < count; ++r)
            tile<Type, 1, T>(rows + r, r0 + r, t0);
    }

    template <GgmlType Type>
    void panel(const std::uint8_t* const* rows, std::int64_t count, std::int64_t r0) const {
        const std::int64_t tokens = x.tokens();
        for (std::int64_t t0 = 0; t0 < tokens; t0 += kTokenTile) {
            switch (std::min<std::int64_t>(kTokenTile, tokens - t0)) {
            case 1:
                rowsOver<Type, 1>(rows, count, r0, t0);
                break;
            case 2:
                rowsOver<Type, 2>(rows, count, r0, t0);
                break;
            case 3:
                rowsOver<Type, 3>(rows, count, r0, t0);
                break;
            default:
                rowsOver<Type, 4>(rows, count, r0, t0);
                break;
            }
        }
    }

    template <GgmlType Type> void run(std::int64_t rowBegin, std::int64_t rowEnd) const {
        thread_local std::vector<float> widened;
        const bool widen = x.tokens() > kTokenTile;
        // Widened rows an odd number of 64-byte lines apart (see kStreamStride).
        const std::int64_t stride = ((w.cols + 15) / 16) | 1;
        if (widen)
            widened.resize(static_cast<std::size_t>(kPanelRows * stride * 16));
        const auto* base = static_cast<const std::uint8_t*>(w.data);
        for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kPanelRows) {
            const std::int64_t count = std::min(kPanelRows, rowEnd - r0);
            const std::uint8_t* rows[kPanelRows];
            for (std::int64_t r = 0; r < count; ++r) {
                rows[r] = base + static_cast<std::size_t>(r0 + r) * w.rowBytes;
                if (!widen)
                    continue;
                float* out = widened.data() + r * stride * 16;
                for (std::int64_t k = 0; k < w.cols; k += 16) {
                    const __mmask16 mask =
                        w.cols - k >= 16 ? __mmask16(0xFFFF) : __mmask16((1u << (w.cols - k)) - 1);
                    _mm512_storeu_ps(out + k, loadWeights<Type>(rows[r], k, mask));
                }
                rows[r] = reinterpret_cast<const std::uint8_t*>(out);
            }
            if (widen) {
                panel<GgmlType::F32>(rows, count, r0);
            } else {
                panel<Type>(rows, count, r0);
            }
        }
    }
};

template <GgmlType Type>
void runFloat(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
              float* y, std::int64_t ldy) {
    const FloatKernel kernel{w, x, y, ldy};
    kernel.run<Type>(rowBegin, rowEnd);
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
void quantizeSuperBlocksAvx512(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales) {
    for (std::int64_t s = 0; s < cols / 256; ++s) {
        const float* v = x + 256 * s;
        __m512 most = _mm512_setzero_ps();
        for (int i = 0; i < 256; i += 16)
            most = _mm512_max_ps(most, _mm512_abs_ps(_mm512_loadu_ps(v + i)));
        const float amax = _mm512_reduce_max_ps(most);
        // See quantizeSuperBlocksScalar.
        const float id = amax != 0.0f ? 127.0f / amax : 0.0f;
        const __m512 idv = _mm512_set1_ps(id);
        for (int i = 0; i < 256; i += 16) {
            _mm_storeu_si128(
                reinterpret_cast<__m128i*>(codes + 256 * s + i),
                _mm512_cvtsepi32_epi8(_mm512_cvtps_epi32(_mm512_mul_ps(_mm512_loadu_ps(v + i), idv))));
        }
        _mm256_storeu_ps(scales + 8 * s, _mm256_set1_ps(amax != 0.0f ? 1.0f / id : 0.0f));
    }
    std::fill(codes + cols, codes + paddedCols, std::int8_t{0});
    std::fill(scales + cols / 32, scales + paddedCols / 32, 0.0f);
}

namespace {

struct Avx512 {
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
        if (rowPanelProductAvx512(w, x, rowBegin, rowEnd, y, ldy))
            return true;
        switch (w.type) {
        case GgmlType::Q8_0:
            if (x.hasPanelSums() && w.cols % 256 == 0) {
                groupedQ8_0(w, x, rowBegin, rowEnd, y, ldy);
                return true;
            }
            if (x.tokens() != 1)
                return false;
            oneTokenQ8_0(w, x, rowBegin, rowEnd, y);
            return true;
        case GgmlType::Q4_K:
            if (!x.hasKQuantTokens())
                return false;
            registerKQuantProduct(kQ4KGroup, w, x, rowBegin, rowEnd, y, ldy);
            return true;
        case GgmlType::Q6_K:
            if (!x.hasKQuantTokens())
                return false;
            registerKQuantProduct(kQ6KGroup, w, x, rowBegin, rowEnd, y, ldy);
            return true;
        default:
            return false;
        }
    }
};

} // namespace

void matmulAvx512(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, float* y, std::int64_t ldy) {
    dispatchProduct<Avx512>(w, x, rowBegin, rowEnd, y, ldy);
}

} // namespace parlune::llm::detail
