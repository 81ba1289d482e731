#pragma once

#include "llm/model/ModelConfig.h"
#include "llm/tensor/GgmlType.h"

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace parlune::llm {

class GgufWriter;

// How the weight matrices of a test model are encoded.
struct TestWeightScheme {
    // One type for every matrix, or the mix a "Q4_K_M" file has (Q4_K, with Q6_K for the value
    // and down projections of some layers, where rows are whole 256-blocks; Q5_0 elsewhere;
    // Q8_0 embeddings).
    GgmlType type = GgmlType::F32;
    bool q4kmMix = false;

    // Parses f32, f16, bf16, q4_0, q4_1, q5_0, q5_1, q8_0, q4_k, q5_k, q6_k, q4_k_m.
    static std::optional<TestWeightScheme> parse(std::string_view name);
    std::string name() const;
};

struct TestModelRecipe {
    Architecture architecture = Architecture::llama;
    std::int64_t hiddenSize = 64;
    std::int64_t layerCount = 2;
    std::int64_t headCount = 4;
    std::int64_t kvHeadCount = 2;
    std::int64_t feedForwardSize = 256;
    std::int64_t vocabularySize = 0; // 0: the vocabulary's own size
    std::int64_t contextLength = 2048;
    bool tiedOutput = true;
    TestWeightScheme weights;
    std::uint64_t seed = 1;
    double ropeFreqBase = 10000.0;
    double rmsEpsilon = 1e-5;
    RopeScaling ropeScaling;
    // Gemma 3 only: `attention.sliding_window` and `attention.sliding_window_pattern` (0: not
    // written, so the engine's defaults apply).
    std::int64_t slidingWindow = 0;
    std::int64_t slidingWindowPeriod = 0;
    // Written as `rope_freqs.weight` when not empty (one divisor per rotated pair).
    std::vector<float> ropeFrequencyFactors;
    // Standard deviation of the query and key projections: larger values make attention peaked,
    // so that positions visibly change the logits.
    double queryKeyStdDev = 0.02;
    // A GGUF file whose `tokenizer.*` metadata is copied; empty for a small built-in byte-level
    // vocabulary (256 byte tokens, a few merges, ChatML control tokens).
    std::filesystem::path vocabularyFile;
    std::string chatTemplate; // empty: a ChatML template (unless the vocabulary file has one)
    std::string name = "parlune test model";

    // Named shapes: "tiny" (64/2/4/2/256), "135m" (576/30/9/3/1536, vocab 49152),
    // "0.5b" (896/24/14/2/4864, vocab 151936, theta 1e6), "1b" (2048/16/32/8/8192, vocab 128256),
    // "1.5b" (1536/28/12/2/8960, vocab 151936), "3b" (2048/36/16/2/11008, vocab 151936); theta 1e6
    // except for llama. nullopt for an unknown name.
    static std::optional<TestModelRecipe> shape(std::string_view name, Architecture architecture);
};

// The per-pair RoPE divisors Llama 3.1/3.2 checkpoints derive from their `rope_scaling` settings
// (type "llama3"): pairs that turn slowly over the original context are stretched by `factor`,
// fast ones are kept, with a smooth ramp between. Computed in float32 as converters do.
std::vector<float> llama3RopeFrequencyFactors(double base, std::int64_t ropeDims, double factor,
                                              double lowFrequencyFactor, double highFrequencyFactor,
                                              std::int64_t originalContext);

// Writes random-weight models of real structure for tests and benchmarks: weights N(0, 0.02),
// norm weights 1 + N(0, 0.1), biases N(0, 0.05), drawn from a generator seeded by the recipe's
// seed and each tensor's name, so the same recipe always gives the same file.
class TestModelMaker {
public:
    // Throws std::invalid_argument for an inconsistent recipe, GgufError for an unreadable
    // vocabulary file.
    static GgufWriter build(const TestModelRecipe& recipe);
    static void write(const TestModelRecipe& recipe, const std::filesystem::path& path);

    // Type used for one matrix (exposed for tests): the scheme's type where the row length
    // allows it, else the nearest type that fits.
    static GgmlType matrixType(const TestWeightScheme& scheme, std::string_view tensorName,
                               std::int64_t layer, std::int64_t layerCount, std::int64_t rowLength);
};

} // namespace parlune::llm
