#include "llm/runtime/GenerationSession.h"

#include "llm/gguf/GgufFile.h"
#include "llm/model/Model.h"
#include "llm/model/ModelError.h"
#include "llm/tokenizer/TokenDecoder.h"
#include "llm/tokenizer/Tokenizer.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <stdexcept>

namespace parlune::llm {

namespace {

double secondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

} // namespace

GenerationSession::GenerationSession(std::shared_ptr<const Model> model, std::shared_ptr<const Tokenizer> tokenizer,
                                     ThreadPool& pool)
    : model_(std::move(model)), tokenizer_(std::move(tokenizer)), transformer_(model_, pool),
      state_{KvCache(model_->config()), {}, {}} {}

std::int32_t GenerationSession::argmax(std::span<const float> logits) {
    if (logits.empty()) {
        throw std::invalid_argument("argmax of no logits");
    }
    return static_cast<std::int32_t>(std::max_element(logits.begin(), logits.end()) - logits.begin());
}

void GenerationSession::append(std::span<const std::int32_t> tokens) {
    if (tokens.empty()) {
        return;
    }
    transformer_.forward(tokens, state_.cache, state_.logits);
    if (model_->file().changedSinceOpened()) {
        throw ModelFileChangedError(model_->file().source()); // these logits may come from other bytes
    }
    // NaN or infinite scales in the weights poison every score; an answer picked from them is noise.
    if (!std::all_of(state_.logits.begin(), state_.logits.end(),
                     [](float value) { return std::isfinite(value); })) {
        throw ModelError(
            "the model computed scores that are not finite numbers (its weights hold NaN or infinite "
            "values)");
    }
    state_.tokens.insert(state_.tokens.end(), tokens.begin(), tokens.end());
}

std::int64_t GenerationSession::prefill(std::span<const std::int32_t> tokens) {
    if (tokens.empty()) {
        truncate(0);
        return 0;
    }
    const auto shared = static_cast<std::size_t>(
        std::mismatch(state_.tokens.begin(), state_.tokens.end(), tokens.begin(), tokens.end()).first -
        state_.tokens.begin());
    if (shared == tokens.size() && shared == state_.tokens.size() && !state_.logits.empty()) {
        return 0;
    }
    // At least the last token is computed again so its logits are at hand.
    const std::size_t keep = std::min(shared, tokens.size() - 1);
    truncate(static_cast<std::int64_t>(keep));
    append(tokens.subspan(keep));
    return static_cast<std::int64_t>(tokens.size() - keep);
}

GenerationResult GenerationSession::generate(std::span<const std::int32_t> prompt, const GenerationOptions& options,
                                             const TextCallback& onText) {
    GenerationResult result;
    const auto promptStart = std::chrono::steady_clock::now();
    result.promptTokensComputed = prefill(prompt);
    result.promptTokensReused = static_cast<std::int64_t>(prompt.size()) - result.promptTokensComputed;
    result.promptSeconds = secondsSince(promptStart);

    const auto generationStart = std::chrono::steady_clock::now();
    TokenDecoder decoder(*tokenizer_);
    const auto emit = [&](const std::string& piece) {
        if (piece.empty()) {
            return;
        }
        result.text += piece;
        if (onText) {
            onText(piece);
        }
    };
    result.stopReason = StopReason::maxTokens;
    for (std::int64_t produced = 0; produced < options.maxNewTokens; ++produced) {
        if (options.stopFlag && options.stopFlag->load(std::memory_order_relaxed)) {
            result.stopReason = StopReason::stopRequested;
            break;
        }
        const std::int32_t next = argmax(state_.logits);
        if (!options.ignoreEndOfGeneration && tokenizer_->isEndOfGeneration(next)) {
            result.stopReason = StopReason::endOfGeneration;
            break;
        }
        result.tokens.push_back(next);
        emit(decoder.push(next));
        if (produced + 1 == options.maxNewTokens) {
            break; // the last token's logits are never needed
        }
        if (state_.cache.length() >= state_.cache.maxPositions()) {
            result.stopReason = StopReason::contextFull;
            break;
        }
        const std::int32_t step[] = {next};
        append(step);
    }
    emit(decoder.flush());
    result.generationSeconds = secondsSince(generationStart);
    return result;
}

GenerationSession::State GenerationSession::saveState() const { return state_; }

void GenerationSession::restoreState(const State& state) {
    if (state.cache.headDim() != state_.cache.headDim() || state.cache.maxPositions() != state_.cache.maxPositions() ||
        state.cache.length() != static_cast<std::int64_t>(state.tokens.size())) {
        throw std::invalid_argument("session state does not belong to this model");
    }
    state_ = state;
}

void GenerationSession::truncate(std::int64_t length) {
    if (length >= static_cast<std::int64_t>(state_.tokens.size())) {
        return;
    }
    state_.cache.truncate(length);
    state_.tokens.resize(static_cast<std::size_t>(length));
    state_.logits.clear(); // logits of an earlier position are not kept
}

} // namespace parlune::llm
