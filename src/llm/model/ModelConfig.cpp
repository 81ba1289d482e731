#include "llm/model/ModelConfig.h"

#include "llm/gguf/GgufFile.h"
#include "llm/model/ModelError.h"

#include <cmath>
#include <optional>

namespace parlune::llm {

namespace {

// Every width the engine sizes buffers and checks tensor shapes with stays below this, so sums
// and products of two of them never overflow 64 bits.
constexpr std::int64_t kMaxWidth = std::int64_t{1} << 31;

std::int64_t checkedProduct(std::int64_t a, std::int64_t b, const char* what) {
    std::int64_t product = 0;
    if (__builtin_mul_overflow(a, b, &product) || product > kMaxWidth) {
        throw ModelError(std::string(what) + " " + std::to_string(a) + " x " + std::to_string(b) +
                         " is too large");
    }
    return product;
}

class MetadataReader {
public:
    MetadataReader(const GgufFile& file, std::string prefix) : file_(file), prefix_(std::move(prefix)) {}

    std::optional<std::int64_t> integer(std::string_view suffix) const {
        const std::string key = prefix_ + std::string(suffix);
        if (!file_.hasKey(key)) {
            return std::nullopt;
        }
        const std::optional<std::int64_t> value = file_.getInteger(key);
        if (!value) {
            throw ModelError("model metadata '" + key + "' is not an integer");
        }
        return value;
    }

    std::int64_t requiredPositive(std::string_view suffix) const {
        const std::optional<std::int64_t> value = integer(suffix);
        if (!value) {
            throw ModelError("model metadata '" + prefix_ + std::string(suffix) + "' is missing");
        }
        return positive(suffix, *value);
    }

    std::int64_t positive(std::string_view suffix, std::int64_t value) const {
        if (value <= 0 || value > (std::int64_t{1} << 32)) {
            throw ModelError("model metadata '" + prefix_ + std::string(suffix) + "' is out of range (" +
                             std::to_string(value) + ")");
        }
        return value;
    }

    std::optional<double> real(std::string_view suffix) const {
        const std::string key = prefix_ + std::string(suffix);
        if (!file_.hasKey(key)) {
            return std::nullopt;
        }
        std::optional<double> value = file_.getFloat(key);
        if (!value) {
            if (const std::optional<std::int64_t> asInteger = file_.getInteger(key)) {
                value = static_cast<double>(*asInteger);
            }
        }
        if (!value || !std::isfinite(*value)) {
            throw ModelError("model metadata '" + key + "' is not a finite number");
        }
        return value;
    }

    std::optional<std::string_view> string(std::string_view suffix) const {
        return file_.getString(prefix_ + std::string(suffix));
    }

    const std::string& prefix() const { return prefix_; }

private:
    const GgufFile& file_;
    std::string prefix_;
};

Architecture parseArchitecture(std::string_view name) {
    if (name == "llama") {
        return Architecture::llama;
    }
    if (name == "qwen2") {
        return Architecture::qwen2;
    }
    if (name == "qwen3") {
        return Architecture::qwen3;
    }
    if (name == "phi3") {
        return Architecture::phi3;
    }
    if (name == "gemma3") {
        return Architecture::gemma3;
    }
    throw ModelError("unsupported model architecture '" + std::string(name) +
                     "' (supported: llama, qwen2, qwen3, phi3, gemma3)");
}

RopeScaling readRopeScaling(const MetadataReader& meta, std::int64_t contextLength) {
    RopeScaling scaling;
    std::string_view type = meta.string("rope.scaling.type").value_or("");
    std::optional<double> factor = meta.real("rope.scaling.factor");
    if (type.empty()) {
        // Older files give only a linear scale.
        if (const std::optional<double> linear = meta.real("rope.scale_linear"); linear && *linear != 1.0) {
            type = "linear";
            factor = linear;
        } else {
            type = "none";
        }
    }
    if (type == "none") {
        // Phi-3 long-context files scale the rotated values without naming a scaling type; the
        // original context decides which of their per-pair factors apply.
        scaling.attentionFactor = meta.real("rope.scaling.attn_factor").value_or(1.0);
        scaling.originalContext = meta.integer("rope.scaling.original_context_length").value_or(0);
        if (scaling.attentionFactor <= 0.0) {
            throw ModelError("'" + meta.prefix() + "rope.scaling.attn_factor' must be positive");
        }
        return scaling;
    }
    if (type != "linear" && type != "yarn") {
        throw ModelError("unsupported RoPE scaling type '" + std::string(type) + "'");
    }
    if (!factor || *factor <= 0.0) {
        throw ModelError("RoPE scaling '" + std::string(type) + "' needs a positive '" + meta.prefix() +
                         "rope.scaling.factor'");
    }
    scaling.factor = *factor;
    if (scaling.factor == 1.0) {
        return scaling; // a factor of one scales nothing
    }
    scaling.kind = type == "linear" ? RopeScalingKind::linear : RopeScalingKind::yarn;
    scaling.originalContext = meta.integer("rope.scaling.original_context_length").value_or(contextLength);
    scaling.attentionFactor = meta.real("rope.scaling.attn_factor").value_or(1.0);
    scaling.betaFast = meta.real("rope.scaling.yarn_beta_fast").value_or(32.0);
    scaling.betaSlow = meta.real("rope.scaling.yarn_beta_slow").value_or(1.0);
    if (scaling.kind == RopeScalingKind::yarn && scaling.originalContext <= 0) {
        throw ModelError("yarn RoPE scaling needs a positive original context length");
    }
    return scaling;
}

// Gemma 3: GELU gate, scaled embeddings, and five sliding-window layers to one global layer
// unless the file says otherwise; the sliding layers keep RoPE base 10000 unless given.
void readGemma3(const MetadataReader& meta, ModelConfig& config) {
    config.gateActivation = GateActivation::geluTanh;
    config.embeddingScale = std::sqrt(static_cast<double>(static_cast<float>(config.hiddenSize)));
    if (const std::optional<std::int64_t> window = meta.integer("attention.sliding_window")) {
        config.slidingWindow = meta.positive("attention.sliding_window", *window);
        config.slidingWindowPeriod = meta.positive(
            "attention.sliding_window_pattern", meta.integer("attention.sliding_window_pattern").value_or(6));
    }
    config.slidingRopeFreqBase = meta.real("rope.freq_base_swa").value_or(10000.0);
    if (config.slidingRopeFreqBase <= 1.0) {
        throw ModelError("sliding-window RoPE frequency base " + std::to_string(config.slidingRopeFreqBase) +
                         " is out of range");
    }
}

} // namespace

std::int64_t ModelConfig::queryWidth() const {
    return checkedProduct(headCount, headDim, "query width (heads x key length)");
}

std::int64_t ModelConfig::keyWidth() const {
    return checkedProduct(kvHeadCount, headDim, "key width (key/value heads x key length)");
}

std::int64_t ModelConfig::valueWidth() const {
    return checkedProduct(kvHeadCount, valueDim, "value width (key/value heads x value length)");
}

std::int64_t ModelConfig::attentionWidth() const {
    return checkedProduct(headCount, valueDim, "attention width (heads x value length)");
}

std::string_view architectureName(Architecture architecture) {
    switch (architecture) {
    case Architecture::llama:
        return "llama";
    case Architecture::qwen2:
        return "qwen2";
    case Architecture::qwen3:
        return "qwen3";
    case Architecture::phi3:
        return "phi3";
    case Architecture::gemma3:
        return "gemma3";
    }
    return "unknown";
}

ModelConfig ModelConfig::fromGguf(const GgufFile& file) {
    const std::optional<std::string_view> archName = file.getString("general.architecture");
    if (!archName) {
        throw ModelError("model metadata 'general.architecture' is missing: not a model file");
    }
    ModelConfig config;
    config.architecture = parseArchitecture(*archName);
    config.architectureName = std::string(*archName);
    const MetadataReader meta(file, config.architectureName + ".");

    config.layerCount = meta.requiredPositive("block_count");
    config.hiddenSize = meta.requiredPositive("embedding_length");
    config.feedForwardSize = meta.requiredPositive("feed_forward_length");
    config.headCount = meta.requiredPositive("attention.head_count");
    config.kvHeadCount = meta.positive("attention.head_count_kv",
                                       meta.integer("attention.head_count_kv").value_or(config.headCount));
    config.contextLength = meta.requiredPositive("context_length");
    if (config.headCount % config.kvHeadCount != 0) {
        throw ModelError("attention head count " + std::to_string(config.headCount) +
                         " is not a multiple of the key/value head count " +
                         std::to_string(config.kvHeadCount));
    }
    const std::optional<std::int64_t> keyLength = meta.integer("attention.key_length");
    if (!keyLength && config.hiddenSize % config.headCount != 0) {
        throw ModelError("embedding length " + std::to_string(config.hiddenSize) +
                         " is not a multiple of the head count and no key length is given");
    }
    config.headDim =
        meta.positive("attention.key_length", keyLength.value_or(config.hiddenSize / config.headCount));
    config.valueDim = meta.positive("attention.value_length",
                                    meta.integer("attention.value_length").value_or(config.headDim));
    if (config.valueDim != config.headDim) {
        throw ModelError("key length " + std::to_string(config.headDim) + " and value length " +
                         std::to_string(config.valueDim) + " differ, which this engine does not support");
    }
    if (config.headDim % 2 != 0) {
        throw ModelError("head dimension " + std::to_string(config.headDim) + " is odd");
    }

    const double epsilon = meta.real("attention.layer_norm_rms_epsilon").value_or(1e-6);
    if (epsilon <= 0.0 || epsilon > 1.0) {
        throw ModelError("RMS norm epsilon " + std::to_string(epsilon) + " is out of range");
    }
    config.rmsEpsilon = epsilon;
    config.ropeFreqBase = meta.real("rope.freq_base").value_or(10000.0);
    if (config.ropeFreqBase <= 1.0) {
        throw ModelError("RoPE frequency base " + std::to_string(config.ropeFreqBase) + " is out of range");
    }
    config.ropeDims = meta.integer("rope.dimension_count").value_or(config.headDim);
    if (config.ropeDims <= 0 || config.ropeDims > config.headDim || config.ropeDims % 2 != 0) {
        throw ModelError("RoPE dimension count " + std::to_string(config.ropeDims) +
                         " does not fit the head dimension " + std::to_string(config.headDim));
    }
    // Each throws on a product that does not fit.
    (void)config.queryWidth();
    (void)config.keyWidth();
    (void)config.valueWidth();
    (void)config.attentionWidth();
    config.ropeLayout = config.architecture == Architecture::llama ? RopeLayout::normal : RopeLayout::neox;
    config.ropeScaling = readRopeScaling(meta, config.contextLength);
    if (config.architecture == Architecture::gemma3) {
        readGemma3(meta, config);
    }
    return config;
}

} // namespace parlune::llm
