#pragma once

#include "llm/model/KvCache.h"
#include "llm/model/ModelIdentity.h"
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

class DraftSource;
class TokenConstraint;

struct GenerationOptions {
    std::int64_t maxNewTokens = 256;
    const std::atomic<bool>* stopFlag = nullptr; // checked between tokens
    bool ignoreEndOfGeneration = false;          // benchmarks: always produce maxNewTokens
    // Control (other than end of generation), unused and padding tokens are never chosen.
    // Off only to follow a reference decoder that picks the plain argmax.
    bool onlyAnswerTokens = true;
    TokenConstraint* constraint = nullptr; // chooses the tokens instead of greedy argmax
    DraftSource* draft = nullptr;          // guesses checked in one batch each step
    std::int64_t maxDraftTokens = 4;
};

enum class StopReason { endOfGeneration, maxTokens, stopRequested, contextFull, constraintFailed };

struct GenerationResult {
    std::vector<std::int32_t> tokens; // generated, without the end-of-generation token
    std::string text;
    StopReason stopReason = StopReason::maxTokens;
    std::int64_t promptTokensComputed = 0; // prompt tokens not found in the cache
    std::int64_t promptTokensReused = 0;
    double promptSeconds = 0.0;
    double firstTokenSeconds = 0.0;       // from the call to the first token chosen
    double generationSeconds = 0.0;       // from the first generated token's logits to the end
    std::int64_t draftTokensProposed = 0; // guessed tokens checked by the model
    std::int64_t draftTokensAccepted = 0; // generated tokens that needed no step of their own
    std::int64_t forwardPasses = 0;       // model runs after the prompt's (one checks a whole guess)
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
        ModelIdentity model; // whose computation this is
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

    // Prefills `prompt` then decodes greedily (or as the constraint chooses) up to the token
    // limit, an end-of-generation token, a stop request or the end of the context, streaming
    // text to `onText` (may be empty). Every generating caller goes through this loop.
    GenerationResult generate(std::span<const std::int32_t> prompt, const GenerationOptions& options,
                              const TextCallback& onText);

    State saveState() const;
    // Throws std::invalid_argument for a state another model (or weight type) computed.
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
    // Runs the model over `tokens` after the cache; throws when the file changed or a score is
    // not finite.
    void compute(std::span<const std::int32_t> tokens, std::vector<float>& logits, bool allPositions);
    void append(std::span<const std::int32_t> tokens);
    std::int32_t chooseToken(const GenerationOptions& options, std::int64_t remainingTokens);
    // Feeds the chosen token: taken from the verified draft when it is the draft's next token,
    // else computed, together with a new draft when there is a source. Returns whether the
    // draft already held it.
    bool advance(std::int32_t token, const GenerationOptions& options, std::int64_t remainingTokens,
                 GenerationResult& result);
    // Forgets the drafted tokens not taken, keeping the current logits.
    void dropDraft();

    std::shared_ptr<const Model> model_;
    std::shared_ptr<const Tokenizer> tokenizer_;
    Transformer transformer_;
    State state_;
    std::vector<float> masked_; // logits with the tokens an answer never holds removed
    // Drafted tokens already in the cache after the current logits, and the logits after each.
    std::vector<std::int32_t> draftTokens_;
    std::vector<float> draftLogits_;
    std::size_t draftTaken_ = 0;
};

} // namespace parlune::llm
