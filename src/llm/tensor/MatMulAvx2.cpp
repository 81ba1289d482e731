// AVX2 + FMA path for processors without AVX-512. Weight rows are decoded to floats a few blocks
// at a time with the row codec and multiplied with FMA; activation codes are expanded to floats
// once per call. Simpler than the AVX-512 path, still several times faster than scalar.
#include "llm/tensor/MatMulKernels.h"
#include "llm/tensor/Quantization.h"

#include <immintrin.h>

#include <algorithm>
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

template <GgmlType Type>
inline __m256 load8(const void* row, std::int64_t k) {
    if constexpr (Type == GgmlType::F16) {
        return _mm256_cvtph_ps(_mm_loadu_si128(reinterpret_cast<const __m128i*>(static_cast<const std::uint16_t*>(row) + k)));
    } else if constexpr (Type == GgmlType::BF16) {
        const __m128i h = _mm_loadu_si128(reinterpret_cast<const __m128i*>(static_cast<const std::uint16_t*>(row) + k));
        return _mm256_castsi256_ps(_mm256_slli_epi32(_mm256_cvtepu16_epi32(h), 16));
    } else {
        return _mm256_loadu_ps(static_cast<const float*>(row) + k);
    }
}

template <GgmlType Type>
inline float scalarAt(const void* row, std::int64_t k) {
    if constexpr (Type == GgmlType::F16) return fp16ToFloat(static_cast<const std::uint16_t*>(row)[k]);
    else if constexpr (Type == GgmlType::BF16) return bf16ToFloat(static_cast<const std::uint16_t*>(row)[k]);
    else return static_cast<const float*>(row)[k];
}

// rows[R] x tokens[T] over `cols` columns; tokens are padded to a multiple of 8 with zeros.
template <GgmlType Type, int R, int T>
void tile(const void* const* rows, const float* const* tokens, std::int64_t cols, float* y, std::int64_t ldy,
          std::int64_t row, std::int64_t token) {
    __m256 acc[R][T];
    for (auto& a : acc)
        for (auto& v : a) v = _mm256_setzero_ps();
    std::int64_t k = 0;
    for (; k + 8 <= cols; k += 8) {
        __m256 xv[T];
        for (int t = 0; t < T; ++t) xv[t] = _mm256_loadu_ps(tokens[t] + k);
        for (int r = 0; r < R; ++r) {
            const __m256 wv = load8<Type>(rows[r], k);
            for (int t = 0; t < T; ++t) acc[r][t] = _mm256_fmadd_ps(wv, xv[t], acc[r][t]);
        }
    }
    for (int r = 0; r < R; ++r) {
        for (int t = 0; t < T; ++t) {
            float sum = hsum(acc[r][t]);
            for (std::int64_t i = k; i < cols; ++i) sum += scalarAt<Type>(rows[r], i) * tokens[t][i];
            y[(token + t) * ldy + row + r] = sum;
        }
    }
}

template <GgmlType Type, int T>
void rowsOver(const void* const* rows, std::int64_t count, const float* const* tokens, std::int64_t cols, float* y,
              std::int64_t ldy, std::int64_t row, std::int64_t token) {
    std::int64_t r = 0;
    for (; r + kRowTile <= count; r += kRowTile) tile<Type, kRowTile, T>(rows + r, tokens, cols, y, ldy, row + r, token);
    for (; r < count; ++r) tile<Type, 1, T>(rows + r, tokens, cols, y, ldy, row + r, token);
}

// A panel of up to kPanelRows rows (as float, F16 or BF16) against every token.
template <GgmlType Type>
void panel(const void* const* rows, std::int64_t count, const float* const* tokens, std::int64_t nTokens,
           std::int64_t cols, float* y, std::int64_t ldy, std::int64_t row) {
    for (std::int64_t t0 = 0; t0 < nTokens; t0 += kTokenTile) {
        const float* const* tk = tokens + t0;
        switch (std::min<std::int64_t>(kTokenTile, nTokens - t0)) {
        case 1: rowsOver<Type, 1>(rows, count, tk, cols, y, ldy, row, t0); break;
        case 2: rowsOver<Type, 2>(rows, count, tk, cols, y, ldy, row, t0); break;
        default: rowsOver<Type, 3>(rows, count, tk, cols, y, ldy, row, t0); break;
        }
    }
}

template <GgmlType Type>
void runFloat(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd, float* y,
              std::int64_t ldy) {
    thread_local std::vector<const float*> tokens;
    tokens.resize(static_cast<std::size_t>(x.tokens()));
    for (std::int64_t t = 0; t < x.tokens(); ++t) tokens[t] = x.values(t);
    const auto* base = static_cast<const std::uint8_t*>(w.data);
    for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kPanelRows) {
        const void* rows[kPanelRows];
        const std::int64_t count = std::min(kPanelRows, rowEnd - r0);
        for (std::int64_t r = 0; r < count; ++r) rows[r] = base + static_cast<std::size_t>(r0 + r) * w.rowBytes;
        panel<Type>(rows, count, tokens.data(), x.tokens(), w.cols, y, ldy, r0);
    }
}

void runQuantized(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                  float* y, std::int64_t ldy) {
    // Activations back to floats once; weight panels decoded once each.
    thread_local std::vector<float> values;
    thread_local std::vector<float> decoded;
    thread_local std::vector<const float*> tokens;
    const std::int64_t cols = w.cols;
    values.resize(static_cast<std::size_t>(x.tokens() * cols));
    tokens.resize(static_cast<std::size_t>(x.tokens()));
    for (std::int64_t t = 0; t < x.tokens(); ++t) {
        const std::int8_t* q = x.codes(t);
        const float* d = x.blockScales(t);
        float* out = values.data() + t * cols;
        for (std::int64_t b = 0; b < cols / 32; ++b) {
            const __m256 scale = _mm256_set1_ps(d[b]);
            for (int i = 0; i < 32; i += 8) {
                const __m128i c = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(q + 32 * b + i));
                _mm256_storeu_ps(out + 32 * b + i, _mm256_mul_ps(scale, _mm256_cvtepi32_ps(_mm256_cvtepi8_epi32(c))));
            }
        }
        tokens[t] = out;
    }
    decoded.resize(static_cast<std::size_t>(kPanelRows * cols));
    const auto* base = static_cast<const std::uint8_t*>(w.data);
    for (std::int64_t r0 = rowBegin; r0 < rowEnd; r0 += kPanelRows) {
        const void* rows[kPanelRows];
        const std::int64_t count = std::min(kPanelRows, rowEnd - r0);
        for (std::int64_t r = 0; r < count; ++r) {
            float* dst = decoded.data() + r * cols;
            dequantizeRow(w.type, base + static_cast<std::size_t>(r0 + r) * w.rowBytes, dst, cols);
            rows[r] = dst;
        }
        panel<GgmlType::F32>(rows, count, tokens.data(), x.tokens(), cols, y, ldy, r0);
    }
}

} // namespace

void matmulAvx2(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                float* y, std::int64_t ldy) {
    switch (w.type) {
    case GgmlType::F32: return runFloat<GgmlType::F32>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::F16: return runFloat<GgmlType::F16>(w, x, rowBegin, rowEnd, y, ldy);
    case GgmlType::BF16: return runFloat<GgmlType::BF16>(w, x, rowBegin, rowEnd, y, ldy);
    default: return runQuantized(w, x, rowBegin, rowEnd, y, ldy);
    }
}

} // namespace parlune::llm::detail
