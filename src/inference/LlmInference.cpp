#include "inference/LlmInference.h"

#include "llm/parallel/PhysicalCores.h"

namespace parlune {

namespace {

// How long a lookup of the model file is trusted before the places are read again.
constexpr std::chrono::seconds chosenModelLifetime{5};

} // namespace

LlmInference::LlmInference(Options options)
    : options_(std::move(options)), prefixCache_(std::make_shared<InstructionPrefixCache>(
                                        options_.prefixCacheEntries, options_.prefixCacheBytes)),
      worker_(std::make_unique<LlmWorker>()) {
    if (options_.threadCount <= 0) {
        options_.threadCount = llm::PhysicalCores::defaultThreadCount();
    }
}

const std::optional<ModelFileReport>& LlmInference::chosenModel() {
    const auto now = std::chrono::steady_clock::now();
    if (!chosenAt_ || now - *chosenAt_ > chosenModelLifetime) {
        chosen_ = options_.locate ? options_.locate() : std::nullopt;
        chosenAt_ = now;
    }
    return chosen_;
}

std::shared_ptr<LlmBackend> LlmInference::currentBackend() {
    if (backend_ && ModelLocator::identityOf(backend_->path()) != backend_->identity()) {
        chosenAt_.reset(); // the file was replaced or rewritten: look again now, not in a while
    }
    const std::optional<ModelFileReport>& chosen = chosenModel();
    if (!chosen || !chosen->usable()) {
        const std::string detail = chosen ? chosen->explanation() : ModelLocator::noModelExplanation();
        throw LanguageModelGenerationError(LanguageModelGenerationError::Kind::assetsUnavailable,
                                           QString::fromStdString(detail));
    }
    if (!backend_ || backend_->path() != chosen->path || backend_->identity() != chosen->identity) {
        // A different model: states computed by the old one mean nothing to it, and jobs still
        // queued for the old backend hold a stale ticket.
        const InstructionPrefixCache::Ticket ticket = prefixCache_->reset();
        backend_ = std::make_shared<LlmBackend>(chosen->path, chosen->identity, options_.threadCount,
                                                prefixCache_, ticket);
        backend_->forceResponseTokens(options_.forcedResponseTokens);
        backend_->draftFromPrompt(options_.draftFromPrompt);
    }
    return backend_;
}

void LlmInference::track(const std::shared_ptr<std::atomic<bool>>& stop) {
    std::erase_if(inFlightStops_,
                  [](const std::weak_ptr<std::atomic<bool>>& flag) { return flag.expired(); });
    inFlightStops_.push_back(stop);
}

void LlmInference::stopAllWork() {
    stopping_->store(true, std::memory_order_relaxed);
    for (const std::weak_ptr<std::atomic<bool>>& weak : inFlightStops_) {
        if (std::shared_ptr<std::atomic<bool>> flag = weak.lock()) {
            flag->store(true, std::memory_order_relaxed);
        }
    }
    inFlightStops_.clear();
}

void LlmInference::post(std::function<void(LlmBackend&, const std::atomic<bool>& stop)> work) {
    std::shared_ptr<LlmBackend> backend;
    try {
        backend = currentBackend();
    } catch (const LanguageModelGenerationError&) {
        return; // nothing to warm
    }
    worker_->post([backend, stop = stopping_, work = std::move(work)] {
        try {
            work(*backend, *stop);
        } catch (...) {
            // A failed warm-up shows again, with its reason, on the next real request.
        }
    });
}

} // namespace parlune
