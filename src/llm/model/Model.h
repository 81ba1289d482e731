#pragma once

#include "llm/model/ModelConfig.h"
#include "llm/model/ModelIdentity.h"
#include "llm/tensor/MatMul.h"

#include <filesystem>
#include <memory>
#include <span>
#include <vector>

namespace parlune::llm {

class GgufFile;

// One transformer block's weights. Matrices point into the file's memory map; the small
// vectors (norms, biases) do too when stored as F32, else they are decoded once at load.
struct LayerWeights {
    std::span<const float> attentionNorm;
    WeightMatrix query;
    WeightMatrix key;
    WeightMatrix value;
    WeightMatrix attentionOutput;
    std::span<const float> queryBias; // empty when the architecture has none
    std::span<const float> keyBias;
    std::span<const float> valueBias;
    std::span<const float> queryNorm; // per-head RMSNorm (qwen3, gemma3), empty otherwise
    std::span<const float> keyNorm;
    std::span<const float> postAttentionNorm; // Gemma 3: on the attention output, empty otherwise
    std::span<const float> ffnNorm;
    std::span<const float> postFeedForwardNorm; // Gemma 3: on the feed-forward output
    WeightMatrix gate;
    WeightMatrix up;
    WeightMatrix down;
};

// A loaded model: hyper-parameters and weights, immutable and shareable across sessions.
class Model {
public:
    // `contextLimit` (when positive) caps the context below the file's: the context a session
    // can fill, which also picks between context-dependent RoPE factors (Phi-3's short and long).
    // Throw GgufError (load only) and ModelError.
    static std::shared_ptr<const Model> load(const std::filesystem::path& path,
                                             std::int64_t contextLimit = 0);
    static std::shared_ptr<const Model> fromFile(std::shared_ptr<const GgufFile> file,
                                                 std::int64_t contextLimit = 0);

    const ModelConfig& config() const { return config_; }
    const ModelIdentity& identity() const { return identity_; }
    const GgufFile& file() const { return *file_; }
    const std::shared_ptr<const GgufFile>& fileHandle() const { return file_; }

    const WeightMatrix& tokenEmbedding() const { return tokenEmbedding_; }
    const LayerWeights& layer(std::int64_t index) const { return layers_[static_cast<std::size_t>(index)]; }
    std::span<const float> outputNorm() const { return outputNorm_; }
    const WeightMatrix& output() const { return output_; }
    bool tiedOutput() const { return tiedOutput_; }
    // Per-pair divisors of the RoPE frequencies, empty when the file has none: Llama 3.x's
    // `rope_freqs.weight`, or Phi-3's `rope_factors_short`/`_long` (long when the context
    // exceeds the original one).
    std::span<const float> ropeFrequencyFactors() const { return ropeFrequencyFactors_; }

    // Bytes of all weight tensors (what generating a token reads).
    std::size_t weightBytes() const { return weightBytes_; }

    // Decodes one row of the embedding table into `out` (hiddenSize floats).
    void embed(std::int32_t token, float* out) const;

private:
    Model() = default;

    std::shared_ptr<const GgufFile> file_;
    ModelConfig config_;
    ModelIdentity identity_;
    WeightMatrix tokenEmbedding_{};
    std::vector<LayerWeights> layers_;
    std::span<const float> outputNorm_;
    WeightMatrix output_{};
    bool tiedOutput_ = false;
    std::span<const float> ropeFrequencyFactors_;
    std::size_t weightBytes_ = 0;
    std::vector<std::vector<float>> decodedVectors_; // vectors not stored as F32
};

} // namespace parlune::llm
