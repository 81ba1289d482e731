#pragma once

// Internal to the matrix product: the per-type switch every SIMD level shares. A level is a
// struct with
//   template <GgmlType Type> static void floats(PRODUCT);   F32, F16 or BF16 weights
//   template <class Format> static void quantised(PRODUCT); its tiles over one decoder
//   static bool ownKernels(PRODUCT);  its own kernels for one or a few tokens or for prompts;
//                                    false where it has none for this product
// (PRODUCT: w, x, rowBegin, rowEnd, y, ldy) and a member type per quantised format naming that
// level's decoder of it. Included only by the level files, each compiled with its own flags.

#include "llm/tensor/MatMulKernels.h"

#include <xmmintrin.h>

#include <algorithm>

namespace parlune::llm::detail {

// Prompts decode a panel of rows, then sweep token tiles over it. Tile `tile` of `tiles` also
// prefetches its share of the next panel's `bytes` at `next`, so decoding that panel finds them
// in cache instead of waiting on memory.
inline void prefetchShare(const std::uint8_t* next, std::int64_t bytes, std::int64_t tile,
                          std::int64_t tiles) {
    const std::int64_t share = (bytes / tiles + 64) / 64 * 64;
    for (std::int64_t at = tile * share; at < std::min(bytes, (tile + 1) * share); at += 64)
        _mm_prefetch(reinterpret_cast<const char*>(next + at), _MM_HINT_T1);
}

// One token streams its rows once; the hardware prefetcher alone leaves the one-token kernels
// waiting on almost every block's first line, so each block asks for the lines a fixed distance
// ahead (past the row's end is the next row, or harmless).
template <int BlockBytes> inline void prefetchBlockAhead(const std::uint8_t* block) {
    constexpr std::int64_t kAhead = 2048;
    for (int at = 0; at < BlockBytes; at += 64)
        _mm_prefetch(reinterpret_cast<const char*>(block + kAhead + at), _MM_HINT_T0);
}

template <class Level>
void dispatchProduct(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                     std::int64_t rowEnd, float* y, std::int64_t ldy) {
    if (Level::ownKernels(w, x, rowBegin, rowEnd, y, ldy))
        return;
    switch (w.type) {
    case GgmlType::F32:
        return Level::template floats<GgmlType::F32>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::F16:
        return Level::template floats<GgmlType::F16>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::BF16:
        return Level::template floats<GgmlType::BF16>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q8_0:
        return Level::template quantised<typename Level::Q8_0>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q4_0:
        return Level::template quantised<typename Level::Q4_0>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q4_1:
        return Level::template quantised<typename Level::Q4_1>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q5_0:
        return Level::template quantised<typename Level::Q5_0>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q5_1:
        return Level::template quantised<typename Level::Q5_1>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q2_K:
        return Level::template quantised<typename Level::Q2_K>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q3_K:
        return Level::template quantised<typename Level::Q3_K>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q4_K:
        return Level::template quantised<typename Level::Q4_K>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q5_K:
        return Level::template quantised<typename Level::Q5_K>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::Q6_K:
        return Level::template quantised<typename Level::Q6_K>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::IQ4_NL:
        return Level::template quantised<typename Level::IQ4_NL>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::IQ4_XS:
        return Level::template quantised<typename Level::IQ4_XS>(w, x, rowBegin, rowEnd, y, ldy);
    default:
        return matmulScalar(w, x, rowBegin, rowEnd, y, ldy);
    }
}

} // namespace parlune::llm::detail
