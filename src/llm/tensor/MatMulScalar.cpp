// Reference path: decodes each weight row to floats with the row codec and takes plain dot
// products with the (dequantised) activations. Slow but obviously right; the SIMD paths are
// tested against it.
#include "llm/tensor/MatMulKernels.h"
#include "llm/tensor/Quantization.h"

#include <algorithm>
#include <cmath>
#include <vector>

namespace parlune::llm::detail {

void quantizeActivationsScalar(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales) {
    for (std::int64_t b = 0; b < paddedCols / 32; ++b) {
        const std::int64_t begin = b * 32;
        const std::int64_t end = std::min(begin + 32, cols);
        float amax = 0.0f;
        for (std::int64_t i = begin; i < end; ++i)
            amax = std::max(amax, std::fabs(x[i]));
        const float d = amax / 127.0f;
        const float id = d != 0.0f ? 1.0f / d : 0.0f;
        scales[b] = d;
        for (std::int64_t i = begin; i < begin + 32; ++i) {
            codes[i] = i < end ? static_cast<std::int8_t>(std::nearbyint(x[i] * id)) : 0;
        }
    }
}

void quantizeSuperBlocksScalar(const float* x, std::int64_t cols, std::int64_t paddedCols, std::int8_t* codes,
                               float* scales) {
    for (std::int64_t s = 0; s < cols / 256; ++s) {
        const float* v = x + 256 * s;
        float amax = 0.0f;
        for (int i = 0; i < 256; ++i)
            amax = std::max(amax, std::fabs(v[i]));
        // The codes' multiplier is rounded once and the scale is its reciprocal, as in the 8-bit
        // super-block activations K-quant files are made against, so ties round the same way.
        const float id = amax != 0.0f ? 127.0f / amax : 0.0f;
        for (int i = 0; i < 256; ++i)
            codes[256 * s + i] = static_cast<std::int8_t>(std::nearbyint(v[i] * id));
        std::fill_n(scales + 8 * s, 8, amax != 0.0f ? 1.0f / id : 0.0f);
    }
    std::fill(codes + cols, codes + paddedCols, std::int8_t{0});
    std::fill(scales + cols / 32, scales + paddedCols / 32, 0.0f);
}

void panelSumsScalar(const std::int8_t* codes, const float* scales, std::int64_t paddedCols, int groupWidth,
                     std::int32_t offset, std::int32_t* bias, float* sums) {
    for (std::int64_t b = 0; b < paddedCols / 32; ++b) {
        std::int32_t halves[2] = {0, 0};
        for (int i = 0; i < 32; ++i)
            halves[i / 16] += codes[32 * b + i];
        sums[b] = scales[b] * static_cast<float>(halves[0] + halves[1]);
        if (groupWidth == 16) {
            bias[2 * b] = -offset * halves[0];
            bias[2 * b + 1] = -offset * halves[1];
        } else {
            bias[b] = -offset * (halves[0] + halves[1]);
        }
    }
}

void matmulScalar(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, float* y, std::int64_t ldy) {
    thread_local std::vector<float> row;
    row.resize(static_cast<std::size_t>(w.cols));
    const auto* base = static_cast<const std::uint8_t*>(w.data);
    for (std::int64_t r = rowBegin; r < rowEnd; ++r) {
        dequantizeRow(w.type, base + static_cast<std::size_t>(r) * w.rowBytes, row.data(), w.cols);
        for (std::int64_t t = 0; t < x.tokens(); ++t) {
            double sum = 0.0;
            if (x.isQuantized()) {
                const std::int8_t* q = x.codes(t);
                const float* d = x.blockScales(t);
                for (std::int64_t b = 0; b < w.cols / 32; ++b) {
                    float block = 0.0f;
                    for (std::int64_t i = 32 * b; i < 32 * b + 32; ++i)
                        block += row[i] * static_cast<float>(q[i]);
                    sum += static_cast<double>(block) * d[b];
                }
            } else {
                const float* v = x.values(t);
                for (std::int64_t i = 0; i < w.cols; ++i)
                    sum += static_cast<double>(row[i]) * v[i];
            }
            y[t * ldy + r] = static_cast<float>(sum);
        }
    }
}

} // namespace parlune::llm::detail
