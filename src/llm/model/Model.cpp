#include "llm/model/Model.h"

#include "llm/gguf/GgufFile.h"
#include "llm/model/ModelError.h"
#include "llm/tensor/Quantization.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>

namespace parlune::llm {

namespace {

std::string describeDims(const std::vector<std::int64_t>& dims) {
    std::string text = "[";
    for (std::size_t i = 0; i < dims.size(); ++i) {
        text += (i ? ", " : "") + std::to_string(dims[i]);
    }
    return text + "]";
}

class WeightBinder {
public:
    WeightBinder(const GgufFile& file, std::vector<std::vector<float>>& decoded, std::size_t& bytes)
        : file_(file), decoded_(decoded), bytes_(bytes) {}

    const GgufTensorInfo* find(const std::string& name) const { return file_.findTensor(name); }

    const GgufTensorInfo& require(const std::string& name) const {
        const GgufTensorInfo* info = file_.findTensor(name);
        if (!info) {
            throw ModelError("model tensor '" + name + "' is missing");
        }
        return *info;
    }

    // A rows x cols matrix (dims = [cols, rows]).
    WeightMatrix matrix(const std::string& name, std::int64_t rows, std::int64_t cols) {
        return bindMatrix(require(name), rows, cols);
    }

    WeightMatrix bindMatrix(const GgufTensorInfo& info, std::int64_t rows, std::int64_t cols) {
        if (info.dims.size() != 2 || info.dims[0] != cols || info.dims[1] != rows) {
            throw ModelError("model tensor '" + info.name + "' has shape " + describeDims(info.dims) +
                             ", expected [" + std::to_string(cols) + ", " + std::to_string(rows) + "]");
        }
        if (!isSupportedWeightType(info.type)) {
            throw ModelError("model tensor '" + info.name + "' has unsupported type " +
                             std::string(ggmlTypeTraits(info.type).name));
        }
        const std::optional<std::size_t> rowBytes = ggmlRowBytes(info.type, cols);
        if (!rowBytes) {
            throw ModelError("model tensor '" + info.name + "' rows of " + std::to_string(cols) +
                             " are not whole blocks of " + std::string(ggmlTypeTraits(info.type).name));
        }
        const std::span<const std::byte> data = file_.tensorBytes(info);
        std::size_t needed = 0;
        if (__builtin_mul_overflow(*rowBytes, static_cast<std::size_t>(rows), &needed) ||
            data.size() < needed) {
            throw ModelError("model tensor '" + info.name + "' data is truncated");
        }
        bytes_ += data.size();
        return WeightMatrix{info.type, data.data(), rows, cols, *rowBytes};
    }

    std::span<const float> vector(const std::string& name, std::int64_t length) {
        return bindVector(require(name), length);
    }

    std::span<const float> optionalVector(const std::string& name, std::int64_t length) {
        const GgufTensorInfo* info = find(name);
        return info ? bindVector(*info, length) : std::span<const float>();
    }

private:
    std::span<const float> bindVector(const GgufTensorInfo& info, std::int64_t length) {
        if (info.dims.empty() || info.elementCount != length || info.dims[0] != length) {
            throw ModelError("model tensor '" + info.name + "' has shape " + describeDims(info.dims) +
                             ", expected [" + std::to_string(length) + "]");
        }
        const std::span<const std::byte> data = file_.tensorBytes(info);
        const std::optional<std::size_t> rowBytes = ggmlRowBytes(info.type, length);
        if (!rowBytes || data.size() < *rowBytes || !hasRowCodec(info.type)) {
            throw ModelError("model tensor '" + info.name + "' cannot be read as a vector of " +
                             std::to_string(length) + " values");
        }
        bytes_ += data.size();
        if (info.type == GgmlType::F32 &&
            reinterpret_cast<std::uintptr_t>(data.data()) % alignof(float) == 0) {
            return {reinterpret_cast<const float*>(data.data()), static_cast<std::size_t>(length)};
        }
        std::vector<float>& decoded = decoded_.emplace_back(static_cast<std::size_t>(length));
        dequantizeRow(info.type, data.data(), decoded.data(), length);
        return decoded;
    }

    const GgufFile& file_;
    std::vector<std::vector<float>>& decoded_;
    std::size_t& bytes_;
};

// Rows [first, first + count) of a bound matrix, as a matrix of their own.
WeightMatrix rowBlock(const WeightMatrix& whole, std::int64_t first, std::int64_t count) {
    WeightMatrix block = whole;
    block.data = static_cast<const std::byte*>(whole.data) + static_cast<std::size_t>(first) * whole.rowBytes;
    block.rows = count;
    return block;
}

} // namespace

std::shared_ptr<const Model> Model::load(const std::filesystem::path& path, std::int64_t contextLimit) {
    return fromFile(GgufFile::open(path), contextLimit);
}

std::shared_ptr<const Model> Model::fromFile(std::shared_ptr<const GgufFile> file,
                                             std::int64_t contextLimit) {
    std::shared_ptr<Model> model(new Model());
    model->file_ = std::move(file);
    const GgufFile& gguf = *model->file_;
    ModelConfig& config = model->config_;
    config = ModelConfig::fromGguf(gguf);
    if (contextLimit > 0) {
        config.contextLength = std::min(config.contextLength, contextLimit);
    }
    model->identity_ = ModelIdentity::of(gguf);
    WeightBinder bind(gguf, model->decodedVectors_, model->weightBytes_);

    const GgufTensorInfo& embedding = bind.require("token_embd.weight");
    if (embedding.dims.size() != 2 || embedding.dims[1] <= 0) {
        throw ModelError("model tensor 'token_embd.weight' has shape " + describeDims(embedding.dims) +
                         ", expected [" + std::to_string(config.hiddenSize) + ", vocabulary]");
    }
    config.vocabularySize = embedding.dims[1];
    model->tokenEmbedding_ = bind.bindMatrix(embedding, config.vocabularySize, config.hiddenSize);
    if (!hasRowCodec(embedding.type)) {
        throw ModelError("model tensor 'token_embd.weight' type cannot be decoded");
    }

    // Every layer has at least this many tensors (Phi-3's fused layers: norms, qkv, output, up,
    // down): the count is checked against the file before anything is sized from it.
    constexpr std::int64_t kTensorsPerLayer = 6;
    const auto tensorCount = static_cast<std::int64_t>(gguf.tensors().size());
    if (config.layerCount > tensorCount / kTensorsPerLayer) {
        throw ModelError("model metadata '" + config.architectureName + ".block_count' says " +
                         std::to_string(config.layerCount) + " layers, but the file holds only " +
                         std::to_string(tensorCount) + " tensors");
    }

    const std::int64_t hidden = config.hiddenSize;
    const bool biases = config.architecture == Architecture::qwen2;
    const bool headNorms =
        config.architecture == Architecture::qwen3 || config.architecture == Architecture::gemma3;
    const bool postNorms = config.architecture == Architecture::gemma3;
    model->layers_.resize(static_cast<std::size_t>(config.layerCount));
    for (std::int64_t i = 0; i < config.layerCount; ++i) {
        const std::string prefix = "blk." + std::to_string(i) + ".";
        LayerWeights& layer = model->layers_[static_cast<std::size_t>(i)];
        layer.attentionNorm = bind.vector(prefix + "attn_norm.weight", hidden);
        if (bind.find(prefix + "attn_qkv.weight")) {
            // Phi-3 stores q, k and v as consecutive row blocks of one matrix.
            const WeightMatrix qkv =
                bind.matrix(prefix + "attn_qkv.weight",
                            config.queryWidth() + config.keyWidth() + config.valueWidth(), hidden);
            layer.query = rowBlock(qkv, 0, config.queryWidth());
            layer.key = rowBlock(qkv, config.queryWidth(), config.keyWidth());
            layer.value = rowBlock(qkv, config.queryWidth() + config.keyWidth(), config.valueWidth());
        } else {
            layer.query = bind.matrix(prefix + "attn_q.weight", config.queryWidth(), hidden);
            layer.key = bind.matrix(prefix + "attn_k.weight", config.keyWidth(), hidden);
            layer.value = bind.matrix(prefix + "attn_v.weight", config.valueWidth(), hidden);
        }
        layer.attentionOutput = bind.matrix(prefix + "attn_output.weight", hidden, config.attentionWidth());
        if (biases) {
            layer.queryBias = bind.vector(prefix + "attn_q.bias", config.queryWidth());
            layer.keyBias = bind.vector(prefix + "attn_k.bias", config.keyWidth());
            layer.valueBias = bind.vector(prefix + "attn_v.bias", config.valueWidth());
        } else {
            // Llama-family files may still carry biases; honour them when present.
            layer.queryBias = bind.optionalVector(prefix + "attn_q.bias", config.queryWidth());
            layer.keyBias = bind.optionalVector(prefix + "attn_k.bias", config.keyWidth());
            layer.valueBias = bind.optionalVector(prefix + "attn_v.bias", config.valueWidth());
        }
        if (headNorms) {
            layer.queryNorm = bind.vector(prefix + "attn_q_norm.weight", config.headDim);
            layer.keyNorm = bind.vector(prefix + "attn_k_norm.weight", config.headDim);
        }
        layer.ffnNorm = bind.vector(prefix + "ffn_norm.weight", hidden);
        if (postNorms) {
            layer.postAttentionNorm = bind.vector(prefix + "post_attention_norm.weight", hidden);
            layer.postFeedForwardNorm = bind.vector(prefix + "post_ffw_norm.weight", hidden);
        }
        if (bind.find(prefix + "ffn_gate.weight")) {
            layer.gate = bind.matrix(prefix + "ffn_gate.weight", config.feedForwardSize, hidden);
            layer.up = bind.matrix(prefix + "ffn_up.weight", config.feedForwardSize, hidden);
        } else {
            // Phi-3: the gate's rows, then the up projection's, in one matrix.
            const WeightMatrix gateUp =
                bind.matrix(prefix + "ffn_up.weight", 2 * config.feedForwardSize, hidden);
            layer.gate = rowBlock(gateUp, 0, config.feedForwardSize);
            layer.up = rowBlock(gateUp, config.feedForwardSize, config.feedForwardSize);
        }
        layer.down = bind.matrix(prefix + "ffn_down.weight", hidden, config.feedForwardSize);
    }
    std::string factorsName = "rope_freqs.weight";
    if (bind.find("rope_factors_long.weight") || bind.find("rope_factors_short.weight")) {
        const bool extended = config.ropeScaling.originalContext > 0 &&
                              config.contextLength > config.ropeScaling.originalContext;
        factorsName = extended ? "rope_factors_long.weight" : "rope_factors_short.weight";
        bind.require(factorsName);
    }
    model->ropeFrequencyFactors_ = bind.optionalVector(factorsName, config.ropeDims / 2);
    for (const float factor : model->ropeFrequencyFactors_) {
        if (!(factor > 0.0f) || !std::isfinite(factor)) {
            throw ModelError("model tensor '" + factorsName +
                             "' holds a factor that is not a positive number (" + std::to_string(factor) +
                             ")");
        }
    }
    model->outputNorm_ = bind.vector("output_norm.weight", hidden);
    if (bind.find("output.weight")) {
        model->output_ = bind.matrix("output.weight", config.vocabularySize, hidden);
    } else {
        model->output_ = model->tokenEmbedding_;
        model->tiedOutput_ = true;
    }
    return model;
}

void Model::embed(std::int32_t token, float* out) const {
    if (token < 0 || token >= config_.vocabularySize) {
        throw ModelError("token id " + std::to_string(token) + " is outside the vocabulary of " +
                         std::to_string(config_.vocabularySize));
    }
    const auto* row = static_cast<const std::byte*>(tokenEmbedding_.data) +
                      static_cast<std::size_t>(token) * tokenEmbedding_.rowBytes;
    dequantizeRow(tokenEmbedding_.type, row, out, config_.hiddenSize);
}

} // namespace parlune::llm
