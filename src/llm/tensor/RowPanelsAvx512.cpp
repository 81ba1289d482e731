// AVX-512 VNNI products of prompt-sized batches with Q4_K, Q5_K and Q6_K rows. Sixteen
// rows at a time are unpacked once into a panel of unsigned 8-bit codes with the rows in the 32-bit
// lanes (four consecutive columns of a row per lane), plus a float scale (and minimum) per row and
// scale group. Every token then multiplies the whole panel with VPDPBUSD against a broadcast of
// four of its codes, so the integer sums of a scale group need no horizontal reduction and the
// float work is a few operations per group and 16 rows. The float scales are applied per
// (row, token, group) in column order, so a token's result does not depend on its batch.
#include "llm/tensor/KQuantAvx512.h"
#include "llm/tensor/LowBitCodecs.h"
#include "llm/tensor/MatMulKernels.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace parlune::llm::detail {

namespace {

constexpr int kLanes = 16;  // rows per panel
constexpr int kStrip = 256; // columns decoded per row before transposing
constexpr int kMostTileTokens = 8;

// Decoders: one 256-column block of a row as unsigned codes in column order, the scale of each
// kGroupWidth columns and, where kMin, -dmin * min per 32 columns after the scales (extra[8..15]).
// The code offset (code - offset is the value) comes from the activations' groupBias.

template <bool HighBits> struct KQuant {
    static constexpr int kGroupWidth = 32;
    static constexpr bool kMin = true;
    static constexpr std::int64_t kStripBytes = HighBits ? 176 : 144;
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
    static constexpr std::int64_t kStripBytes = 210;
    static void decode(const std::uint8_t* b, std::uint8_t* codes, float* extra) {
        const float d = fp16ToFloatFast(u16(b + 208));
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

struct alignas(64) Lanes {
    std::uint8_t bytes[64];
};

// Sixteen rows unpacked for the tiles; rows past the matrix are zero.
struct Panel {
    std::vector<Lanes> codes;  // [cols / 4]: four codes of each row per lane
    std::vector<Lanes> scales; // [cols / groupWidth] floats
    std::vector<Lanes> minima; // [cols / 32] floats, formats with a minimum
};

template <class Format> class RowPanels {
public:
    RowPanels(const WeightMatrix& w, const ActivationBuffer& x, float* y, std::int64_t ldy)
        : w_(w), x_(x), y_(y), ldy_(ldy) {}

    void run(std::int64_t rowBegin, std::int64_t rowEnd) const {
        thread_local Panel panel;
        const std::int64_t padded = (w_.cols + kStrip - 1) / kStrip * kStrip;
        panel.codes.resize(static_cast<std::size_t>(padded / 4));
        panel.scales.resize(static_cast<std::size_t>(padded / Format::kGroupWidth));
        panel.minima.resize(Format::kMin ? static_cast<std::size_t>(padded / 32) : 0);
        for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kLanes) {
            const int rows = static_cast<int>(std::min<std::int64_t>(kLanes, rowEnd - r0));
            unpack(r0, rows, panel);
            const std::int64_t tokens = x_.tokens();
            std::int64_t t0 = 0;
            for (; t0 + kMostTileTokens <= tokens; t0 += kMostTileTokens)
                tile<kMostTileTokens>(panel, r0, rows, t0);
            tail(std::make_integer_sequence<int, kMostTileTokens>(), static_cast<int>(tokens - t0), panel, r0,
                 rows, t0);
        }
    }

private:
    static constexpr int kScalesPerStrip = kStrip / Format::kGroupWidth;

    // The last tokens, fewer than a whole tile: tile<n> for n = tokens (T + 1 over the sequence).
    template <int... T>
    void tail(std::integer_sequence<int, T...>, int tokens, const Panel& panel, std::int64_t r0, int rows,
              std::int64_t t0) const {
        ((tokens == T + 1 ? tile<T + 1>(panel, r0, rows, t0) : void()), ...);
    }

    // Sixteen rows read side by side are more streams than the hardware prefetcher follows.
    static constexpr std::int64_t kPrefetchStrips = 4;
    void prefetchStrip(const std::uint8_t* row, std::int64_t c0) const {
        if (c0 >= w_.cols)
            return;
        const std::uint8_t* strip = row + c0 / kStrip * Format::kStripBytes;
        for (std::int64_t at = 0; at < Format::kStripBytes; at += 64)
            _mm_prefetch(reinterpret_cast<const char*>(strip + at), _MM_HINT_T0);
    }

    void unpack(std::int64_t r0, int rows, Panel& panel) const {
        alignas(64) std::uint8_t codes[kLanes][kStrip];
        alignas(64) float extra[kLanes][16];
        const auto* base = static_cast<const std::uint8_t*>(w_.data);
        for (int r = 0; r < rows; ++r) {
            for (std::int64_t c0 = 0; c0 < kPrefetchStrips * kStrip; c0 += kStrip)
                prefetchStrip(base + static_cast<std::size_t>(r0 + r) * w_.rowBytes, c0);
        }
        for (int r = rows; r < kLanes; ++r) {
            std::memset(codes[r], 0, kStrip);
            std::memset(extra[r], 0, sizeof extra[r]);
        }
        for (std::int64_t c0 = 0; c0 < w_.cols; c0 += kStrip) {
            for (int r = 0; r < rows; ++r) {
                const std::uint8_t* row = base + static_cast<std::size_t>(r0 + r) * w_.rowBytes;
                prefetchStrip(row, c0 + kPrefetchStrips * kStrip);
                Format::decode(row + c0 / kStrip * Format::kStripBytes, codes[r], extra[r]);
            }
            __m512i m[16];
            for (int chunk = 0; chunk < kStrip / 64; ++chunk) {
                for (int r = 0; r < kLanes; ++r)
                    m[r] = _mm512_load_si512(codes[r] + 64 * chunk);
                transpose16(m);
                for (int k = 0; k < 16; ++k)
                    _mm512_store_si512(panel.codes[static_cast<std::size_t>((c0 + 64 * chunk) / 4 + k)].bytes,
                                       m[k]);
            }
            for (int r = 0; r < kLanes; ++r)
                m[r] = _mm512_load_si512(extra[r]);
            transpose16(m);
            for (int k = 0; k < kScalesPerStrip; ++k)
                _mm512_store_si512(panel.scales[static_cast<std::size_t>(c0 / Format::kGroupWidth + k)].bytes,
                                   m[k]);
            if constexpr (Format::kMin) {
                for (int k = 0; k < kStrip / 32; ++k)
                    _mm512_store_si512(panel.minima[static_cast<std::size_t>(c0 / 32 + k)].bytes, m[8 + k]);
            }
        }
    }

    // Tokens [t0, t0 + T) against the panel of rows [r0, r0 + rows).
    template <int T> void tile(const Panel& panel, std::int64_t r0, int rows, std::int64_t t0) const {
        constexpr int kGroups = 32 / Format::kGroupWidth; // scale groups per 32-column block
        constexpr int kSteps = Format::kGroupWidth / 4;   // panel vectors per group
        const std::int32_t* codes[T];
        const float* dx[T];
        const std::int32_t* bias[T];
        const float* sums[T];
        __m512 acc[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t) {
            codes[t] = reinterpret_cast<const std::int32_t*>(x_.codes(t0 + t));
            dx[t] = x_.blockScales(t0 + t);
            bias[t] = x_.groupBias(t0 + t);
            sums[t] = x_.scaledBlockSums(t0 + t);
            acc[t] = _mm512_setzero_ps();
        }
        const Lanes* q = panel.codes.data();
        const Lanes* scales = panel.scales.data();
        const std::int64_t blocks = w_.cols / 32;
        for (std::int64_t b = 0; b < blocks; ++b) {
            __m512 part[T];
#pragma GCC unroll 2
            for (int g = 0; g < kGroups; ++g) {
                const std::int64_t group = kGroups * b + g;
                __m512i sum[T];
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t)
                    sum[t] = _mm512_set1_epi32(bias[t][group]);
#pragma GCC unroll 8
                for (int k = 0; k < kSteps; ++k) {
                    const std::int64_t at = kSteps * group + k;
                    const __m512i v = _mm512_load_si512(q[at].bytes);
#pragma GCC unroll 8
                    for (int t = 0; t < T; ++t)
                        sum[t] = _mm512_dpbusd_epi32(sum[t], v, _mm512_set1_epi32(codes[t][at]));
                }
                const __m512 scale = _mm512_load_ps(scales[group].bytes);
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t) {
                    const __m512 s = _mm512_cvtepi32_ps(sum[t]);
                    if constexpr (kGroups == 1) {
                        // The product of the two scales is exact (an fp16 or 6-bit-integer one
                        // times an fp16 one), so each block rounds once, in the FMA.
                        acc[t] = _mm512_fmadd_ps(s, _mm512_mul_ps(scale, _mm512_set1_ps(dx[t][b])), acc[t]);
                    } else {
                        part[t] = g == 0 ? _mm512_mul_ps(s, scale) : _mm512_fmadd_ps(s, scale, part[t]);
                    }
                }
            }
            if constexpr (kGroups > 1) {
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t)
                    acc[t] = _mm512_fmadd_ps(part[t], _mm512_set1_ps(dx[t][b]), acc[t]);
            }
            if constexpr (Format::kMin) {
                const __m512 minimum = _mm512_load_ps(panel.minima[static_cast<std::size_t>(b)].bytes);
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t)
                    acc[t] = _mm512_fmadd_ps(minimum, _mm512_set1_ps(sums[t][b]), acc[t]);
            }
        }
        const auto mask = static_cast<__mmask16>((1u << rows) - 1);
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            _mm512_mask_storeu_ps(y_ + (t0 + t) * ldy_ + r0, mask, acc[t]);
    }

    const WeightMatrix& w_;
    const ActivationBuffer& x_;
    float* y_;
    std::int64_t ldy_;
};

template <class Format>
void runPanels(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
               float* y, std::int64_t ldy) {
    RowPanels<Format>(w, x, y, ldy).run(rowBegin, rowEnd);
}

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
    if (!x.hasPanelSums())
        return false;
    switch (w.type) {
    case GgmlType::Q4_K:
        runPanels<KQuant<false>>(w, x, rowBegin, rowEnd, y, ldy);
        return true;
    case GgmlType::Q5_K:
        runPanels<KQuant<true>>(w, x, rowBegin, rowEnd, y, ldy);
        return true;
    case GgmlType::Q6_K:
        runPanels<Q6K>(w, x, rowBegin, rowEnd, y, ldy);
        return true;
    default:
        return false;
    }
}

} // namespace parlune::llm::detail
