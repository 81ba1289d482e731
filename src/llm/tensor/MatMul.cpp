#include "llm/tensor/MatMul.h"

#include "llm/tensor/CpuFeatures.h"
#include "llm/tensor/MatMulKernels.h"
#include "llm/tensor/Quantization.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

namespace parlune::llm {

namespace {

bool pairsWithHalfScaleActivations(GgmlType type) {
    switch (type) {
    case GgmlType::Q4_0:
    case GgmlType::Q4_1:
    case GgmlType::Q5_0:
    case GgmlType::Q5_1:
    case GgmlType::Q8_0:
        return true;
    default:
        return false;
    }
}

// The scale groups and code offsets of the formats the row panels take (see groupBias).
struct PanelGrouping {
    int groupWidth; // zero for formats without row panels
    std::int32_t offset;
};
PanelGrouping panelGrouping(GgmlType type) {
    switch (type) {
    case GgmlType::Q4_K:
    case GgmlType::Q5_K:
        return {32, 0};
    case GgmlType::Q6_K:
        return {16, 32};
    case GgmlType::Q8_0:
        return {32, 128};
    default:
        return {0, 0};
    }
}

bool isFloatType(GgmlType type) {
    return type == GgmlType::F32 || type == GgmlType::F16 || type == GgmlType::BF16;
}

std::string typeName(GgmlType type) {
    return std::string(ggmlTypeTraits(type).name);
}

bool avx512Usable(const CpuFeatures& f) {
    return f.avx512f && f.avx512bw && f.avx512vl && f.avx512vnni && f.f16c;
}
bool avx2Usable(const CpuFeatures& f) {
    return f.avx2 && f.fma && f.f16c;
}

void checkProduct(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, const float* y, std::int64_t ldy) {
    if (!isSupportedWeightType(w.type))
        throw std::invalid_argument("matmul: unsupported weight type " + typeName(w.type));
    if (x.weightType() != w.type) {
        throw std::invalid_argument("matmul: activations prepared for " + typeName(x.weightType()) +
                                    ", weights are " + typeName(w.type));
    }
    if (x.cols() != w.cols) {
        throw std::invalid_argument("matmul: activations have " + std::to_string(x.cols()) +
                                    " columns, weights " + std::to_string(w.cols));
    }
    const auto rowBytes = ggmlRowBytes(w.type, w.cols);
    if (!rowBytes || w.rowBytes < *rowBytes)
        throw std::invalid_argument("matmul: weight row stride too small");
    if (rowBegin < 0 || rowEnd > w.rows || rowBegin > rowEnd)
        throw std::invalid_argument("matmul: row range out of bounds");
    if (x.tokens() > 1 && ldy < w.rows)
        throw std::invalid_argument("matmul: output stride smaller than the row count");
    if ((w.data == nullptr || y == nullptr) && rowEnd > rowBegin && x.tokens() > 0) {
        throw std::invalid_argument("matmul: null weights or output");
    }
}

} // namespace

void prepareActivations(GgmlType weightType, const float* x, std::int64_t nTokens, std::int64_t cols,
                        ActivationBuffer& out) {
    if (!isSupportedWeightType(weightType)) {
        throw std::invalid_argument("activations: unsupported weight type " + typeName(weightType));
    }
    const std::int64_t block = ggmlTypeTraits(weightType).blockElements;
    if (nTokens < 0 || cols <= 0 || cols % block != 0) {
        throw std::invalid_argument("activations: " + std::to_string(cols) + " columns do not fit " +
                                    typeName(weightType) + " blocks");
    }
    constexpr std::int64_t pad = ActivationBuffer::kColumnPadding;
    out.weightType_ = weightType;
    out.tokens_ = nTokens;
    out.cols_ = cols;
    out.paddedCols_ = (cols + pad - 1) / pad * pad;
    // Token rows a multiple of 4 KiB apart would share L1 sets with each other and with the weight
    // rows the tiles read beside them.
    if (out.paddedCols_ % 1024 == 0)
        out.paddedCols_ += pad;
    out.quantized_ = !isFloatType(weightType);
    const auto total = static_cast<std::size_t>(nTokens * out.paddedCols_);
    if (!out.quantized_) {
        out.values_.assign(total, 0.0f);
        for (std::int64_t t = 0; t < nTokens; ++t) {
            std::memcpy(out.values_.data() + t * out.paddedCols_, x + t * cols,
                        static_cast<std::size_t>(cols) * 4);
        }
        return;
    }
    out.codes_.resize(total);
    out.scales_.resize(total / 32);
    const bool simd = avx512Usable(cpuFeatures());
    const auto quantize =
        block == 256 ? (simd ? detail::quantizeSuperBlocksAvx512 : detail::quantizeSuperBlocksScalar)
                     : (simd ? detail::quantizeActivationsAvx512 : detail::quantizeActivationsScalar);
    for (std::int64_t t = 0; t < nTokens; ++t) {
        quantize(x + t * cols, cols, out.paddedCols_, out.codes_.data() + t * out.paddedCols_,
                 out.scales_.data() + t * (out.paddedCols_ / 32));
    }
    // GGUF's 32-element activation blocks carry an fp16 scale; products with the block types
    // that pair with them match files made elsewhere exactly only when our scale is rounded the
    // same way (the codes keep the unrounded reciprocal).
    if (pairsWithHalfScaleActivations(weightType)) {
        for (float& scale : out.scales_) {
            scale = fp16ToFloat(floatToFp16(scale));
        }
    }
    // AVX-512 takes Q8_0 rows of whole 256-column groups through the panels' arithmetic at every
    // batch size (per-block code sums); other Q8_0 rows go through the tiles (token chunks).
    const bool q8Grouped = weightType == GgmlType::Q8_0 && simd && cols % 256 == 0;
    out.q8Chunks_.clear();
    if (weightType == GgmlType::Q8_0 && simd && nTokens > 1 && !q8Grouped) {
        out.q8Chunks_.resize(static_cast<std::size_t>(nTokens * (out.paddedCols_ / 64)));
        for (std::int64_t t = 0; t < nTokens; ++t) {
            detail::prepareQ8TokenChunks(out.codes(t), out.blockScales(t), out.paddedCols_,
                                         out.q8Chunks_.data() + t * (out.paddedCols_ / 64));
        }
    }
    out.kquantTokens_.clear();
    out.groupBias_.clear();
    out.scaledBlockSums_.clear();
    if (nTokens <= ActivationBuffer::kMostRegisterTokens && !q8Grouped) {
        if (weightType == GgmlType::Q4_K || weightType == GgmlType::Q6_K) {
            out.kquantTokens_.resize(static_cast<std::size_t>(nTokens * (cols / 256)));
            for (std::int64_t t = 0; t < nTokens; ++t) {
                detail::prepareKQuantTokens(weightType, out.codes(t), out.blockScales(t), cols,
                                            out.kquantTokens_.data() + t * (cols / 256));
            }
        }
        return;
    }
    // The scalar path has no row panels.
    const PanelGrouping grouping = panelGrouping(weightType);
    if (grouping.groupWidth == 0 || !avx2Usable(cpuFeatures()) ||
        (weightType == GgmlType::Q8_0 && !q8Grouped))
        return;
    const auto panelSums = simd ? detail::panelSumsAvx512 : detail::panelSumsScalar;
    out.groupBias_.resize(total / 16);
    out.scaledBlockSums_.resize(total / 32);
    for (std::int64_t t = 0; t < nTokens; ++t) {
        panelSums(out.codes(t), out.blockScales(t), out.paddedCols_, grouping.groupWidth, grouping.offset,
                  out.groupBias_.data() + t * (out.paddedCols_ / 16),
                  out.scaledBlockSums_.data() + t * (out.paddedCols_ / 32));
    }
}

KernelPath bestKernelPath() {
    const CpuFeatures& f = cpuFeatures();
    if (avx512Usable(f))
        return KernelPath::avx512;
    if (avx2Usable(f))
        return KernelPath::avx2;
    return KernelPath::scalar;
}

bool kernelPathAvailable(KernelPath path) {
    const CpuFeatures& f = detectedCpuFeatures();
    switch (path) {
    case KernelPath::scalar:
        return true;
    case KernelPath::avx2:
        return avx2Usable(f);
    case KernelPath::avx512:
        return avx512Usable(f);
    }
    return false;
}

const char* kernelPathName(KernelPath path) {
    switch (path) {
    case KernelPath::scalar:
        return "scalar";
    case KernelPath::avx2:
        return "avx2";
    case KernelPath::avx512:
        return "avx512";
    }
    return "?";
}

void matmulRowsOn(KernelPath path, const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, float* y, std::int64_t ldy) {
    checkProduct(w, x, rowBegin, rowEnd, y, ldy);
    if (!kernelPathAvailable(path)) {
        throw std::invalid_argument(std::string("matmul: this processor cannot run the ") +
                                    kernelPathName(path) + " path");
    }
    if (rowEnd == rowBegin || x.tokens() == 0)
        return;
    switch (path) {
    case KernelPath::scalar:
        detail::matmulScalar(w, x, rowBegin, rowEnd, y, ldy);
        return;
    case KernelPath::avx2:
        detail::matmulAvx2(w, x, rowBegin, rowEnd, y, ldy);
        return;
    case KernelPath::avx512:
        detail::matmulAvx512(w, x, rowBegin, rowEnd, y, ldy);
        return;
    }
}

void matmulRows(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                float* y, std::int64_t ldy) {
    static const KernelPath path = bestKernelPath();
    matmulRowsOn(path, w, x, rowBegin, rowEnd, y, ldy);
}

void detail::registerKQuantProduct(std::span<const KQuantRows> group, const WeightMatrix& w,
                                   const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                                   float* y, std::int64_t ldy) {
    const std::int64_t tokens = x.tokens();
    const auto most = static_cast<std::int64_t>(group.size());
    const KQuantToken* token[ActivationBuffer::kMostRegisterTokens];
    for (std::int64_t t = 0; t < tokens; ++t)
        token[t] = x.kquantTokens(t);
    float out[ActivationBuffer::kMostRegisterTokens];
    const auto* base = static_cast<const std::uint8_t*>(w.data);
    if (tokens == 1) { // generation: straight into the output
        for (std::int64_t r = rowBegin; r < rowEnd; ++r)
            group[0](base + static_cast<std::size_t>(r) * w.rowBytes, w.cols / 256, token, y + r);
        return;
    }
    for (std::int64_t r = rowBegin; r < rowEnd; ++r) {
        const std::uint8_t* row = base + static_cast<std::size_t>(r) * w.rowBytes;
        // The row stays in L1 from one group of tokens to the next.
        for (std::int64_t t = 0; t < tokens; t += most) {
            const std::int64_t n = std::min(most, tokens - t);
            group[static_cast<std::size_t>(n - 1)](row, w.cols / 256, token + t, out + t);
        }
        for (std::int64_t t = 0; t < tokens; ++t)
            y[t * ldy + r] = out[t];
    }
}

} // namespace parlune::llm
