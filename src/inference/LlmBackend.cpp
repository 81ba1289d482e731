#include "inference/LlmBackend.h"

#include "core/async/CancellationError.h"
#include "core/diagnostics/PrintableText.h"
#include "core/platform/LanguageModelFramework.h"
#include "inference/ModelBundle.h"
#include "llm/constrained/JsonObjectConstraint.h"
#include "llm/constrained/TokenByteTable.h"
#include "llm/gguf/GgufFile.h"
#include "llm/model/Model.h"
#include "llm/model/ModelError.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/runtime/GenerationSession.h"
#include "llm/runtime/PromptLookupDraft.h"
#include "llm/tokenizer/ChatFormat.h"
#include "llm/tokenizer/Tokenizer.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <stdexcept>

namespace parlune {

namespace {

using Kind = LanguageModelGenerationError::Kind;
using Clock = std::chrono::steady_clock;

// Prompt tokens computed per forward call: large enough for batched speed, small enough that a
// stop request is noticed quickly.
constexpr std::size_t prefillSlice = 64;
// Most tokens guessed per step: checking this many costs little more than one step on the
// memory-bound models people run, and a guess shrinks by itself when it fails.
constexpr std::int64_t maximumDraftTokens = 8;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void throwIfStopped(const std::atomic<bool>& stop) {
    if (stop.load(std::memory_order_relaxed)) {
        throw CancellationError();
    }
}

} // namespace

LlmBackend::LlmBackend(std::filesystem::path path, ModelFileIdentity identity, int threadCount,
                       std::shared_ptr<InstructionPrefixCache> prefixCache,
                       InstructionPrefixCache::Ticket ticket)
    : path_(std::move(path)), identity_(identity), threadCount_(std::max(1, threadCount)),
      prefixCache_(std::move(prefixCache)), ticket_(ticket) {}

LlmBackend::~LlmBackend() = default;

void LlmBackend::load() {
    if (model_ && model_->file().changedSinceOpened()) {
        unload(); // changed while idle: nothing computed from it is trusted, the file is read again
    }
    if (model_) {
        return;
    }
    // Everything is built first and kept only when all of it loaded, so a failure leaves the
    // backend unloaded and the next request tries again.
    try {
        ModelBundle bundle = ModelBundle::load(path_);
        if (!pool_) {
            pool_ = std::make_unique<llm::ThreadPool>(threadCount_);
        }
        chatFormat_ = std::move(bundle.chatFormat);
        tokenizer_ = std::move(bundle.tokenizer);
        model_ = std::move(bundle.model);
    } catch (const ModelBundle::Unusable& failure) {
        ModelFileReport report;
        report.path = path_;
        report.problem = failure.what();
        throw LanguageModelGenerationError(Kind::assetsUnavailable,
                                           QString::fromStdString(report.explanation()));
    } catch (const std::exception&) { // out of memory for the thread pool
        throw LanguageModelGenerationError(Kind::assetsUnavailable);
    }
}

void LlmBackend::unload() {
    model_.reset();
    tokenizer_.reset();
    chatFormat_.reset();
    tokenBytes_.reset();
    promptOverhead_.reset();
    prefixCache_->clear(); // states computed from the old bytes
}

std::vector<std::int32_t> LlmBackend::encode(const std::string& text,
                                             const std::vector<llm::TextRange>& literal) const {
    std::vector<std::int32_t> tokens;
    if (tokenizer_->addBosByDefault() && !chatFormat_->includesBos() && tokenizer_->bosToken()) {
        tokens.push_back(*tokenizer_->bosToken());
    }
    const std::vector<std::int32_t> body = tokenizer_->encode(text, literal);
    tokens.insert(tokens.end(), body.begin(), body.end());
    return tokens;
}

std::vector<std::int32_t> LlmBackend::systemPrefixTokens(const std::string& instructions) const {
    const llm::ChatPrompt prefix = chatFormat_->buildSystemPrefix(instructions);
    return encode(prefix.text, prefix.content);
}

std::int64_t LlmBackend::instructionTokenCount(const std::string& instructions) {
    load();
    return static_cast<std::int64_t>(systemPrefixTokens(instructions).size());
}

std::int64_t LlmBackend::promptTokenCount(const std::string& prompt) {
    load();
    if (!promptOverhead_) {
        const llm::ChatPrompt empty = chatFormat_->buildPrompt({}, {});
        promptOverhead_ = static_cast<std::int64_t>(encode(empty.text, empty.content).size()) -
                          static_cast<std::int64_t>(systemPrefixTokens({}).size());
    }
    const std::vector<llm::TextRange> whole{{0, prompt.size()}};
    return *promptOverhead_ + static_cast<std::int64_t>(tokenizer_->encode(prompt, whole).size());
}

std::int64_t LlmBackend::prefill(llm::GenerationSession& session, const std::vector<std::int32_t>& prefix,
                                 const std::vector<std::int32_t>& tokens, const std::atomic<bool>& stop) {
    std::int64_t reused = 0;
    const bool prefixFits = !prefix.empty() && prefix.size() <= tokens.size() &&
                            std::equal(prefix.begin(), prefix.end(), tokens.begin());
    if (prefixFits) {
        if (auto cached = prefixCache_->find(model_->identity(), prefix)) {
            session.restoreState(*cached);
            reused = static_cast<std::int64_t>(prefix.size());
        }
    }
    const auto computeUpTo = [&](std::size_t end) {
        for (std::size_t done = session.tokens().size(); done < end;) {
            throwIfStopped(stop);
            done = std::min(end, done + prefillSlice);
            session.prefill(std::span<const std::int32_t>(tokens.data(), done));
        }
    };
    try {
        if (prefixFits && reused == 0) {
            computeUpTo(prefix.size());
            prefixCache_->insert(ticket_,
                                 std::make_shared<const InstructionPrefixCache::State>(session.saveState()));
        }
        computeUpTo(tokens.size());
    } catch (const std::length_error&) {
        throw LanguageModelGenerationError(Kind::exceededContextWindowSize);
    }
    return reused;
}

void LlmBackend::prewarm(const std::string& instructions, const std::atomic<bool>& stop) {
    load();
    const std::vector<std::int32_t> prefix = systemPrefixTokens(instructions);
    if (prefixCache_->find(model_->identity(), prefix)) {
        return;
    }
    llm::GenerationSession session(model_, tokenizer_, *pool_);
    prefill(session, prefix, prefix, stop);
}

LlmResponse LlmBackend::generate(const LlmRequest& request, const std::atomic<bool>& stop) {
    const auto started = Clock::now();
    throwIfStopped(stop);
    load();
    LlmResponse response;
    try {
        const llm::ChatPrompt prompt = chatFormat_->buildPrompt(request.instructions, request.prompt);
        const std::vector<std::int32_t> tokens = encode(prompt.text, prompt.content);
        const std::vector<std::int32_t> prefix = systemPrefixTokens(request.instructions);
        response.promptTokens = static_cast<std::int64_t>(tokens.size());

        std::optional<llm::JsonObjectConstraint> constraint;
        if (!request.schemaProperties.empty()) {
            if (!tokenBytes_) {
                tokenBytes_ = std::make_shared<const llm::TokenByteTable>(*tokenizer_);
            }
            constraint.emplace(tokenBytes_, request.schemaProperties);
        }

        llm::GenerationSession session(model_, tokenizer_, *pool_);
        response.promptTokensReused = prefill(session, prefix, tokens, stop);

        // Only answers allowed at least the forced length are forced (not the one-token warm-up).
        const bool forced =
            forcedResponseTokens_ && !constraint && request.maximumTokens >= *forcedResponseTokens_;
        llm::GenerationOptions options;
        options.maxNewTokens = forced ? *forcedResponseTokens_ : request.maximumTokens;
        options.stopFlag = &stop;
        options.ignoreEndOfGeneration = forced;
        options.constraint = constraint ? &*constraint : nullptr;
        std::optional<llm::PromptLookupDraft> draft;
        if (draftFromPrompt_) {
            options.draft = &draft.emplace();
            options.maxDraftTokens = maximumDraftTokens;
        }
        const double beforeGeneration = secondsSince(started);
        const llm::GenerationResult result = session.generate(tokens, options, {});
        switch (result.stopReason) {
        case llm::StopReason::stopRequested:
            throw CancellationError();
        case llm::StopReason::contextFull:
            throw LanguageModelGenerationError(Kind::exceededContextWindowSize);
        case llm::StopReason::constraintFailed:
            throw LanguageModelGenerationError(Kind::decodingFailure);
        case llm::StopReason::endOfGeneration:
        case llm::StopReason::maxTokens:
            break;
        }
        response.secondsToFirstToken = beforeGeneration + result.firstTokenSeconds;
        response.tokens = static_cast<std::int64_t>(result.tokens.size());
        response.draftTokensProposed = result.draftTokensProposed;
        response.draftTokensAccepted = result.draftTokensAccepted;
        response.forwardPasses = result.forwardPasses;
        if (constraint) {
            if (!constraint->isComplete()) {
                throw LanguageModelGenerationError(Kind::decodingFailure);
            }
            response.text = constraint->text();
        } else {
            response.text = result.text;
        }
    } catch (const std::length_error&) {
        throw LanguageModelGenerationError(Kind::exceededContextWindowSize);
    } catch (const llm::ModelFileChangedError&) {
        // The mapping may hold other bytes now: drop it all; the next request loads the file again.
        unload();
        throw LanguageModelGenerationError(Kind::decodingFailure,
                                           QString::fromStdString("The model file changed while in use: " +
                                                                  printableText(path_.string()) + "."));
    } catch (const llm::ModelError& failure) {
        throw LanguageModelGenerationError(Kind::decodingFailure, QString::fromStdString(failure.what()));
    } catch (const std::bad_alloc&) {
        throw LanguageModelGenerationError(Kind::assetsUnavailable);
    } catch (const LanguageModelGenerationError&) {
        throw;
    } catch (const CancellationError&) {
        throw;
    } catch (const std::exception&) {
        throw LanguageModelGenerationError(Kind::decodingFailure);
    }
    response.totalSeconds = secondsSince(started);
    return response;
}

} // namespace parlune
