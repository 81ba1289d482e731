#pragma once

#include "llm/model/KvCache.h"
#include "llm/model/Transformer.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace parlune::llm {

class Model;
class Tokenizer;
class ThreadPool;

struct GenerationOptions {
    std::int64_t maxNewTokens = 256;
    const std::atomic<bool>* stopFlag = nullptr; // checked between tokens
    bool ignoreEndOfGeneration = false;         // benchmarks: always produce maxNewTokens
};

enum class StopReason { endOfGeneration, maxTokens, stopRequested, contextFull };

struct GenerationResult {
    std::vector<std::int32_t> tokens; // generated, without the end-of-generation token
    std::string text;
    StopReason stopReason = StopReason::maxTokens;
    std::int64_t promptTokensComputed = 0; // prompt tokens not found in the cache
    std::int64_t promptTokensReused = 0;
    double promptSeconds = 0.0;
    double generationSeconds = 0.0; // from the first generated token's logits to the end
};

// Receives decoded text as it is generated, in whole UTF-8 characters.
using TextCallback = std::function<void(std::string_view piece)>;

// A conversation state over one model: the tokens processed so far with their key/value cache
// and the logits after the last one. A new prompt reuses the longest prefix it shares with
// the cached tokens; saveState/restoreState keep and bring back a state (e.g. the cache of
// fixed instructions computed once and reused by later prompts). Used by one thread at a time.
class GenerationSession {
public:
    struct State {
        KvCache cache;
        std::vector<std::int32_t> tokens;
        std::vector<float> logits; // after the last token; empty when none was processed
    };

    GenerationSession(std::shared_ptr<const Model> model, std::shared_ptr<const Tokenizer> tokenizer,
                      ThreadPool& pool);

    // Makes the session's tokens exactly `tokens`, computing only what the cache lacks.
    // Returns the number of tokens computed. Throws std::length_error past the context, and
    // ModelFileChangedError when the model's file changed on disk meanwhile, ModelError when the
    // scores are not finite.
    std::int64_t prefill(std::span<const std::int32_t> tokens);

    // Prefills `prompt` then decodes greedily, streaming text to `onText` (may be empty).
    GenerationResult generate(std::span<const std::int32_t> prompt, const GenerationOptions& options,
                              const TextCallback& onText);

    State saveState() const;
    void restoreState(const State& state);
    void truncate(std::int64_t length); // forget tokens after the first `length`

    const std::vector<std::int32_t>& tokens() const { return state_.tokens; }
    std::span<const float> logits() const { return state_.logits; }
    const KvCache& cache() const { return state_.cache; }
    const Model& model() const { return *model_; }
    const Tokenizer& tokenizer() const { return *tokenizer_; }

    // Index of the largest logit (the lowest index among equals).
    static std::int32_t argmax(std::span<const float> logits);

private:
    void append(std::span<const std::int32_t> tokens);

    std::shared_ptr<const Model> model_;
    std::shared_ptr<const Tokenizer> tokenizer_;
    Transformer transformer_;
    State state_;
};

} // namespace parlune::llm
