#include "engine/LlmInference.h"

#include <thread>

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
        options_.threadCount = static_cast<int>(std::max(1u, std::thread::hardware_concurrency()));
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
        // A different model: states computed by the old one mean nothing to it.
        prefixCache_->clear();
        backend_ =
            std::make_shared<LlmBackend>(chosen->path, chosen->identity, options_.threadCount, prefixCache_);
        backend_->forceResponseTokens(options_.forcedResponseTokens);
    }
    return backend_;
}

void LlmInference::post(std::function<void(LlmBackend&)> work) {
    std::shared_ptr<LlmBackend> backend;
    try {
        backend = currentBackend();
    } catch (const LanguageModelGenerationError&) {
        return; // nothing to warm
    }
    worker_->post([backend, work = std::move(work)] {
        try {
            work(*backend);
        } catch (...) {
            // A failed warm-up shows again, with its reason, on the next real request.
        }
    });
}

} // namespace parlune
