#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace parlune::llm {

class GgufFile;

enum class Architecture { llama, qwen2, qwen3, phi3, gemma3 };

// The gate's activation in the gated feed-forward block.
enum class GateActivation { silu, geluTanh };

// How the rotary embedding pairs up the dimensions of a head: `normal` rotates (2i, 2i+1),
// `neox` rotates (i, i + rotated/2).
enum class RopeLayout { normal, neox };

enum class RopeScalingKind { none, linear, yarn };

struct RopeScaling {
    RopeScalingKind kind = RopeScalingKind::none;
    double factor = 1.0;              // context extension factor (positions are divided by it)
    std::int64_t originalContext = 0; // training context the extension is relative to (yarn)
    double attentionFactor = 1.0;     // magnitude scale of the rotated values (yarn, Phi-3 long context)
    double betaFast = 32.0;
    double betaSlow = 1.0;
};

// Hyper-parameters of a decoder-only transformer, read from `{arch}.*` metadata.
struct ModelConfig {
    Architecture architecture = Architecture::llama;
    std::string architectureName;
    std::int64_t layerCount = 0;
    std::int64_t hiddenSize = 0;
    std::int64_t feedForwardSize = 0;
    std::int64_t headCount = 0;
    std::int64_t kvHeadCount = 0;
    std::int64_t headDim = 0;  // key (and query) length per head
    std::int64_t valueDim = 0; // value length per head
    std::int64_t contextLength = 0;
    std::int64_t vocabularySize = 0; // rows of token_embd
    double rmsEpsilon = 1e-6;
    double ropeFreqBase = 10000.0;
    std::int64_t ropeDims = 0; // leading dimensions of each head that are rotated
    RopeLayout ropeLayout = RopeLayout::normal;
    RopeScaling ropeScaling;
    GateActivation gateActivation = GateActivation::silu;
    double embeddingScale = 1.0; // token embeddings are multiplied by it (Gemma: sqrt(hidden))
    // Local attention (Gemma 3): in every layer but each `slidingWindowPeriod`-th, a query sees
    // only the `slidingWindow` latest positions, itself included, and RoPE uses
    // `slidingRopeFreqBase` without context scaling. 0: every layer is global.
    std::int64_t slidingWindow = 0;
    std::int64_t slidingWindowPeriod = 0;
    double slidingRopeFreqBase = 10000.0;

    bool isSlidingLayer(std::int64_t layer) const {
        return slidingWindow > 0 && (slidingWindowPeriod <= 0 || (layer + 1) % slidingWindowPeriod != 0);
    }

    // Row counts of the attention projections. fromGguf guarantees they fit; for any other
    // configuration a product that overflows throws ModelError.
    std::int64_t queryWidth() const;
    std::int64_t keyWidth() const;
    std::int64_t valueWidth() const;
    std::int64_t attentionWidth() const; // headCount * valueDim, the attention output's length

    // Reads and validates the hyper-parameters; throws ModelError naming the offending key.
    // vocabularySize is left for the caller (it comes from the embedding tensor).
    static ModelConfig fromGguf(const GgufFile& file);
};

std::string_view architectureName(Architecture architecture);

} // namespace parlune::llm
