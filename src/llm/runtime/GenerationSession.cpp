#include "llm/runtime/GenerationSession.h"

#include "llm/gguf/GgufFile.h"
#include "llm/model/Model.h"
#include "llm/model/ModelError.h"
#include "llm/runtime/DraftSource.h"
#include "llm/runtime/TokenConstraint.h"
#include "llm/tensor/MatMul.h"
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

GenerationSession::GenerationSession(std::shared_ptr<const Model> model,
                                     std::shared_ptr<const Tokenizer> tokenizer, ThreadPool& pool)
    : model_(std::move(model)), tokenizer_(std::move(tokenizer)),
      transformer_(model_, pool), state_{model_->identity(), KvCache(model_->config()), {}, {}} {}

std::int32_t GenerationSession::argmax(std::span<const float> logits) {
    if (logits.empty()) {
        throw std::invalid_argument("argmax of no logits");
    }
    return static_cast<std::int32_t>(std::max_element(logits.begin(), logits.end()) - logits.begin());
}

void GenerationSession::compute(std::span<const std::int32_t> tokens, std::vector<float>& logits,
                                bool allPositions) {
    transformer_.forward(tokens, state_.cache, logits, allPositions);
    if (model_->file().changedSinceOpened()) {
        throw ModelFileChangedError(model_->file().source()); // these logits may come from other bytes
    }
    // NaN or infinite scales in the weights poison every score; an answer picked from them is noise.
    if (!std::all_of(logits.begin(), logits.end(), [](float value) { return std::isfinite(value); })) {
        throw ModelError(
            "the model computed scores that are not finite numbers (its weights hold NaN or infinite "
            "values)");
    }
}

void GenerationSession::append(std::span<const std::int32_t> tokens) {
    if (tokens.empty()) {
        return;
    }
    compute(tokens, state_.logits, false);
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

std::int32_t GenerationSession::chooseToken(const GenerationOptions& options, std::int64_t remainingTokens) {
    std::span<const float> logits = state_.logits;
    if (options.onlyAnswerTokens) {
        masked_.assign(logits.begin(), logits.end());
        for (const std::int32_t token : tokenizer_->neverGenerated()) {
            if (static_cast<std::size_t>(token) < masked_.size()) {
                masked_[static_cast<std::size_t>(token)] = -INFINITY;
            }
        }
        // Output rows past the vocabulary are padding of the weight matrix.
        const auto known = std::min(masked_.size(), static_cast<std::size_t>(tokenizer_->vocabularySize()));
        std::fill(masked_.begin() + static_cast<std::ptrdiff_t>(known), masked_.end(), -INFINITY);
        logits = masked_;
    }
    if (options.constraint) {
        return options.constraint->bestToken(logits, remainingTokens);
    }
    return argmax(logits);
}

GenerationResult GenerationSession::generate(std::span<const std::int32_t> prompt,
                                             const GenerationOptions& options, const TextCallback& onText) {
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
    const auto stopped = [&] {
        return options.stopFlag && options.stopFlag->load(std::memory_order_relaxed);
    };
    TokenConstraint* constraint = options.constraint;
    result.stopReason = StopReason::maxTokens;
    for (std::int64_t produced = 0; produced < options.maxNewTokens; ++produced) {
        if (stopped()) {
            result.stopReason = StopReason::stopRequested;
            break;
        }
        const std::int32_t next = chooseToken(options, options.maxNewTokens - produced);
        if (produced == 0) {
            result.firstTokenSeconds = secondsSince(promptStart);
        }
        if (next < 0) {
            result.stopReason = StopReason::constraintFailed;
            break;
        }
        if (!options.ignoreEndOfGeneration && tokenizer_->isEndOfGeneration(next)) {
            result.stopReason = StopReason::endOfGeneration;
            break;
        }
        if (constraint) {
            constraint->accept(next);
        }
        result.tokens.push_back(next);
        emit(decoder.push(next));
        if (produced + 1 == options.maxNewTokens) {
            break; // the last token's logits are never needed
        }
        if (constraint && constraint->isComplete()) {
            result.stopReason = StopReason::endOfGeneration;
            break;
        }
        const auto pendingDraft = static_cast<std::int64_t>(draftTokens_.size() - draftTaken_);
        if (state_.cache.length() - pendingDraft >= state_.cache.maxPositions()) {
            result.stopReason = StopReason::contextFull;
            break;
        }
        if (advance(next, options, options.maxNewTokens - produced - 1, result)) {
            ++result.draftTokensAccepted;
        }
    }
    dropDraft();
    emit(decoder.flush());
    result.generationSeconds = secondsSince(generationStart);
    return result;
}

bool GenerationSession::advance(std::int32_t token, const GenerationOptions& options,
                                std::int64_t remainingTokens, GenerationResult& result) {
    if (draftTaken_ < draftTokens_.size()) {
        if (draftTokens_[draftTaken_] == token) {
            const auto vocabulary = static_cast<std::ptrdiff_t>(state_.logits.size());
            const auto row = draftLogits_.begin() + static_cast<std::ptrdiff_t>(draftTaken_) * vocabulary;
            std::copy(row, row + vocabulary, state_.logits.begin());
            ++draftTaken_;
            return true;
        }
        dropDraft();
    }
    std::vector<std::int32_t> batch{token};
    if (options.draft && remainingTokens > 1) {
        // The last token generated is never fed, so guesses beyond remainingTokens - 1 are waste.
        const std::int64_t room = state_.cache.maxPositions() - state_.cache.length() - 1;
        // A checked batch (the chosen token and the guesses) scores like single steps only up to
        // the register kernels' batch size.
        const std::int64_t most = std::min(
            {options.maxDraftTokens, ActivationBuffer::kMostRegisterTokens - 1, remainingTokens - 1, room});
        if (most > 0) {
            std::vector<std::int32_t> guess = options.draft->propose(
                [&] {
                    std::vector<std::int32_t> context = state_.tokens;
                    context.push_back(token);
                    return context;
                }(),
                most);
            guess.resize(std::min<std::size_t>(guess.size(), static_cast<std::size_t>(most)));
            batch.insert(batch.end(), guess.begin(), guess.end());
        }
    }
    ++result.forwardPasses;
    if (batch.size() == 1) {
        append(batch);
        return false;
    }
    result.draftTokensProposed += static_cast<std::int64_t>(batch.size()) - 1;
    std::vector<float> rows;
    compute(batch, rows, true);
    state_.tokens.insert(state_.tokens.end(), batch.begin(), batch.end());
    const std::size_t vocabulary = rows.size() / batch.size();
    state_.logits.assign(rows.begin(), rows.begin() + static_cast<std::ptrdiff_t>(vocabulary));
    draftTokens_.assign(batch.begin() + 1, batch.end());
    draftLogits_.assign(rows.begin() + static_cast<std::ptrdiff_t>(vocabulary), rows.end());
    draftTaken_ = 0;
    return false;
}

void GenerationSession::dropDraft() {
    const auto unused = static_cast<std::int64_t>(draftTokens_.size() - draftTaken_);
    const auto length = static_cast<std::int64_t>(state_.tokens.size()) - unused;
    state_.cache.truncate(length);
    state_.tokens.resize(static_cast<std::size_t>(length));
    draftTokens_.clear();
    draftLogits_.clear();
    draftTaken_ = 0;
}

GenerationSession::State GenerationSession::saveState() const {
    return state_;
}

void GenerationSession::restoreState(const State& state) {
    if (state.model != state_.model || state.cache.headDim() != state_.cache.headDim() ||
        state.cache.maxPositions() != state_.cache.maxPositions() ||
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
