#pragma once

// Internal to the matrix product: products of prompt-sized batches with Q4_K, Q5_K and Q6_K rows
// (and, on AVX-512, Q8_0 rows whose groups of eight blocks serve as the 256-column block),
// shared by the instruction-set files that include it (each compiled with its own flags).
//
// Isa::kLanes rows at a time are unpacked once into a panel of unsigned 8-bit codes with the rows
// in the 32-bit lanes (four consecutive columns of a row per lane), plus a float scale (and
// minimum) per row and scale group. Every token then multiplies the whole panel against a
// broadcast of four of its codes, so the integer sums of a scale group need no horizontal
// reduction and the float work is a few operations per group and kLanes rows. The float scales
// are applied per (row, token, group) in column order, so a token's result depends neither on its
// batch nor on the lane width: both instruction sets give the same bits.
//
// Isa: kLanes, kTileTokens, vector types Int and Float and their operations (see RowPanelsAvx2.cpp).
// Format: kGroupWidth (columns per scale), kMin (a minimum per 32 columns), kBlockBytes, and
//   decode(block, codes, extra): one 256-column block as unsigned codes in column order, the
//   scale of each group, and where kMin, -dmin * min per 32 columns at extra[8..15].
// The code offset (code - offset is the value) comes from the activations' groupBias.

#include "llm/tensor/MatMul.h"

#include <algorithm>
#include <cstring>
#include <utility>
#include <vector>

namespace parlune::llm::detail {

template <class Isa, class Format> class RowPanels {
public:
    RowPanels(const WeightMatrix& w, const ActivationBuffer& x, float* y, std::int64_t ldy)
        : w_(w), x_(x), y_(y), ldy_(ldy) {}

    void run(std::int64_t rowBegin, std::int64_t rowEnd) const {
        thread_local Panel panel;
        panel.codes.resize(static_cast<std::size_t>(w_.cols / 4));
        panel.scales.resize(static_cast<std::size_t>(w_.cols / Format::kGroupWidth));
        panel.minima.resize(Format::kMin ? static_cast<std::size_t>(w_.cols / 32) : 0);
        for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kLanes) {
            const int rows = static_cast<int>(std::min<std::int64_t>(kLanes, rowEnd - r0));
            unpack(r0, rows, panel);
            const std::int64_t tokens = x_.tokens();
            std::int64_t t0 = 0;
            for (; t0 + Isa::kTileTokens <= tokens; t0 += Isa::kTileTokens)
                tile<Isa::kTileTokens>(panel, r0, rows, t0);
            tail(std::make_integer_sequence<int, Isa::kTileTokens>(), static_cast<int>(tokens - t0), panel,
                 r0, rows, t0);
        }
    }

private:
    using Int = typename Isa::Int;
    using Float = typename Isa::Float;
    static constexpr int kLanes = Isa::kLanes;
    static constexpr int kBlock = 256;
    static constexpr int kScalesPerBlock = kBlock / Format::kGroupWidth;

    struct alignas(4 * kLanes) Lanes {
        std::uint8_t bytes[4 * kLanes];
    };
    // kLanes rows unpacked for the tiles; rows past the matrix are zero.
    struct Panel {
        std::vector<Lanes> codes;  // [cols / 4]: four codes of each row per lane
        std::vector<Lanes> scales; // [cols / groupWidth] floats
        std::vector<Lanes> minima; // [cols / 32] floats, formats with a minimum
    };

    // The last tokens, fewer than a whole tile: tile<n> for n = tokens (T + 1 over the sequence).
    template <int... T>
    void tail(std::integer_sequence<int, T...>, int tokens, const Panel& panel, std::int64_t r0, int rows,
              std::int64_t t0) const {
        ((tokens == T + 1 ? tile<T + 1>(panel, r0, rows, t0) : void()), ...);
    }

    // The panel's rows read side by side are more streams than the hardware prefetcher follows.
    static constexpr std::int64_t kPrefetchBlocks = 4;
    void prefetchBlock(const std::uint8_t* row, std::int64_t block) const {
        if (block >= w_.cols / kBlock)
            return;
        const std::uint8_t* at = row + block * Format::kBlockBytes;
        for (std::int64_t line = 0; line < Format::kBlockBytes; line += 64)
            __builtin_prefetch(at + line, 0, 3);
    }

    void unpack(std::int64_t r0, int rows, Panel& panel) const {
        alignas(64) std::uint8_t codes[kLanes][kBlock];
        alignas(64) float extra[kLanes][16];
        const auto* base = static_cast<const std::uint8_t*>(w_.data);
        for (int r = 0; r < rows; ++r) {
            for (std::int64_t s = 0; s < kPrefetchBlocks; ++s)
                prefetchBlock(base + static_cast<std::size_t>(r0 + r) * w_.rowBytes, s);
        }
        for (int r = rows; r < kLanes; ++r) {
            std::memset(codes[r], 0, kBlock);
            std::memset(extra[r], 0, sizeof extra[r]);
        }
        for (std::int64_t s = 0; s < w_.cols / kBlock; ++s) {
            for (int r = 0; r < rows; ++r) {
                const std::uint8_t* row = base + static_cast<std::size_t>(r0 + r) * w_.rowBytes;
                prefetchBlock(row, s + kPrefetchBlocks);
                Format::decode(row + s * Format::kBlockBytes, codes[r], extra[r]);
            }
            Int m[kLanes];
            for (int chunk = 0; chunk < kBlock / (4 * kLanes); ++chunk) {
                for (int r = 0; r < kLanes; ++r)
                    m[r] = Isa::loadInt(codes[r] + 4 * kLanes * chunk);
                Isa::transpose(m);
                for (int k = 0; k < kLanes; ++k)
                    Isa::storeInt(
                        panel.codes[static_cast<std::size_t>(s * kBlock / 4 + kLanes * chunk + k)].bytes,
                        m[k]);
            }
            for (int e0 = 0; e0 < 16; e0 += kLanes) {
                for (int r = 0; r < kLanes; ++r)
                    m[r] = Isa::loadInt(extra[r] + e0);
                Isa::transpose(m);
                for (int k = 0; k < kLanes; ++k) {
                    const int e = e0 + k;
                    if (e < kScalesPerBlock)
                        Isa::storeInt(panel.scales[static_cast<std::size_t>(s * kScalesPerBlock + e)].bytes,
                                      m[k]);
                    else if (Format::kMin)
                        Isa::storeInt(panel.minima[static_cast<std::size_t>(s * 8 + e - 8)].bytes, m[k]);
                }
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
        Float acc[T];
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t) {
            codes[t] = reinterpret_cast<const std::int32_t*>(x_.codes(t0 + t));
            dx[t] = x_.blockScales(t0 + t);
            bias[t] = x_.groupBias(t0 + t);
            sums[t] = x_.scaledBlockSums(t0 + t);
            acc[t] = Isa::zero();
        }
        const Lanes* q = panel.codes.data();
        const Lanes* scales = panel.scales.data();
        const std::int64_t blocks = w_.cols / 32;
        for (std::int64_t b = 0; b < blocks; ++b) {
            Float part[T];
#pragma GCC unroll 2
            for (int g = 0; g < kGroups; ++g) {
                const std::int64_t group = kGroups * b + g;
                Int sum[T];
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t)
                    sum[t] = Isa::broadcastInt(bias[t][group]);
#pragma GCC unroll 8
                for (int k = 0; k < kSteps; ++k) {
                    const std::int64_t at = kSteps * group + k;
                    const Int v = Isa::loadInt(q[at].bytes);
#pragma GCC unroll 8
                    for (int t = 0; t < T; ++t)
                        sum[t] = Isa::dot(sum[t], v, Isa::broadcastInt(codes[t][at]));
                }
                const Float scale = Isa::loadFloat(scales[group].bytes);
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t) {
                    const Float s = Isa::toFloat(sum[t]);
                    if constexpr (kGroups == 1) {
                        // The two scales multiply first; the block's sum then joins in one FMA.
                        acc[t] = Isa::fma(s, Isa::mul(scale, Isa::broadcast(dx[t][b])), acc[t]);
                    } else {
                        part[t] = g == 0 ? Isa::mul(s, scale) : Isa::fma(s, scale, part[t]);
                    }
                }
            }
            if constexpr (kGroups > 1) {
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t)
                    acc[t] = Isa::fma(part[t], Isa::broadcast(dx[t][b]), acc[t]);
            }
            if constexpr (Format::kMin) {
                const Float minimum = Isa::loadFloat(panel.minima[static_cast<std::size_t>(b)].bytes);
#pragma GCC unroll 8
                for (int t = 0; t < T; ++t)
                    acc[t] = Isa::fma(minimum, Isa::broadcast(sums[t][b]), acc[t]);
            }
        }
#pragma GCC unroll 8
        for (int t = 0; t < T; ++t)
            Isa::storeRows(y_ + (t0 + t) * ldy_ + r0, rows, acc[t]);
    }

    const WeightMatrix& w_;
    const ActivationBuffer& x_;
    float* y_;
    std::int64_t ldy_;
};

// The product through Isa's decoders (Isa::Q4_K, Q5_K, Q6_K) when x carries the panel sums;
// false, doing nothing, otherwise.
template <class Isa>
bool rowPanelProduct(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                     std::int64_t rowEnd, float* y, std::int64_t ldy) {
    if (!x.hasPanelSums())
        return false;
    switch (w.type) {
    case GgmlType::Q4_K:
        RowPanels<Isa, typename Isa::Q4_K>(w, x, y, ldy).run(rowBegin, rowEnd);
        return true;
    case GgmlType::Q5_K:
        RowPanels<Isa, typename Isa::Q5_K>(w, x, y, ldy).run(rowBegin, rowEnd);
        return true;
    case GgmlType::Q6_K:
        RowPanels<Isa, typename Isa::Q6_K>(w, x, y, ldy).run(rowBegin, rowEnd);
        return true;
    default:
        return false;
    }
}

} // namespace parlune::llm::detail
