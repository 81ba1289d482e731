#pragma once

#include "llm/tensor/GgmlType.h"
#include "llm/tensor/KQuantToken.h"
#include "llm/tensor/Q8TokenChunk.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace parlune::llm {

// rows x cols weights, each row `rowBytes` of `type` blocks.
struct WeightMatrix {
    GgmlType type;
    const void* data;
    std::int64_t rows;
    std::int64_t cols;
    std::size_t rowBytes;
};

// x (nTokens x cols, f32) in the form a weight type multiplies with, converted once and shared by
// every row (and thread) of a product. Quantised weights take 8-bit codes with one scale per 32
// values (per 256 for formats in 256-column super-blocks, repeated for each 32); float weights
// take the floats as they are.
class ActivationBuffer {
public:
    // Codes and values are stored per token in rows of paddedCols() (a multiple of this, zero
    // padded beyond cols()).
    static constexpr std::int64_t kColumnPadding = 64;

    GgmlType weightType() const { return weightType_; }
    std::int64_t tokens() const { return tokens_; }
    std::int64_t cols() const { return cols_; }
    std::int64_t paddedCols() const { return paddedCols_; }
    bool isQuantized() const { return quantized_; }

    const std::int8_t* codes(std::int64_t token) const { return codes_.data() + token * paddedCols_; }
    const float* blockScales(std::int64_t token) const { return scales_.data() + token * (paddedCols_ / 32); }
    const float* values(std::int64_t token) const { return values_.data() + token * paddedCols_; }
    // Up to this many tokens (the most a checked guess holds), Q4_K and Q6_K products decode each
    // weight block into registers and apply it to every token with the one-token arithmetic, so a
    // checked guess scores exactly as single steps would.
    static constexpr std::int64_t kMostRegisterTokens = 16;
    // The tokens laid out for those register kernels (cols() / 256 blocks each, token after token);
    // empty for other types and longer batches.
    bool hasKQuantTokens() const { return !kquantTokens_.empty(); }
    const detail::KQuantToken* kquantTokens(std::int64_t token) const {
        return kquantTokens_.data() + token * (cols_ / 256);
    }
    // Several tokens against Q8_0 weights on the AVX-512 path: paddedCols() / 64 chunks per token,
    // token after token; empty otherwise.
    bool hasQ8TokenChunks() const { return !q8Chunks_.empty(); }
    const detail::Q8TokenChunk* q8TokenChunks(std::int64_t token) const {
        return q8Chunks_.data() + token * (paddedCols_ / 64);
    }
    // Longer batches (prompts) of Q4_K, Q5_K and Q6_K go through row panels on the SIMD paths,
    // which round differently from single steps but the same at every batch size. They take, per
    // token, minus the format's code offset times the code sum of each of its scale groups (16
    // columns for Q6_K, 32 otherwise), and each 32-column block's scale times its code sum.
    bool hasPanelSums() const { return !groupBias_.empty(); }
    const std::int32_t* groupBias(std::int64_t token) const {
        return groupBias_.data() + token * (paddedCols_ / 16);
    }
    const float* scaledBlockSums(std::int64_t token) const {
        return scaledBlockSums_.data() + token * (paddedCols_ / 32);
    }

private:
    friend void prepareActivations(GgmlType, const float*, std::int64_t, std::int64_t, ActivationBuffer&);

    GgmlType weightType_ = GgmlType::F32;
    std::int64_t tokens_ = 0;
    std::int64_t cols_ = 0;
    std::int64_t paddedCols_ = 0;
    bool quantized_ = false;
    std::vector<std::int8_t> codes_;
    std::vector<float> scales_;
    std::vector<float> values_;
    std::vector<detail::KQuantToken> kquantTokens_;
    std::vector<detail::Q8TokenChunk> q8Chunks_;
    std::vector<std::int32_t> groupBias_;
    std::vector<float> scaledBlockSums_;
};

// Converts x for products with `weightType` weights. Reuses `out`'s storage.
// Throws std::invalid_argument for an unsupported type or a bad shape.
void prepareActivations(GgmlType weightType, const float* x, std::int64_t nTokens, std::int64_t cols,
                        ActivationBuffer& out);

// y[t * ldy + r] = dot(W row r, x row t) for r in [rowBegin, rowEnd), t in [0, x.tokens()).
// Throws std::invalid_argument when w and x do not fit together.
void matmulRows(const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd,
                float* y, std::int64_t ldy);

// The instruction-set paths, for tests and benchmarks. matmulRows uses the best one cpuFeatures()
// allows.
enum class KernelPath { scalar, avx2, avx512 };
KernelPath bestKernelPath();
bool kernelPathAvailable(KernelPath path);
const char* kernelPathName(KernelPath path);
void matmulRowsOn(KernelPath path, const WeightMatrix& w, const ActivationBuffer& x, std::int64_t rowBegin,
                  std::int64_t rowEnd, float* y, std::int64_t ldy);

} // namespace parlune::llm
