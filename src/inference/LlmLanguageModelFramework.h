#pragma once

#include "core/platform/LanguageModelFramework.h"
#include "inference/LlmInference.h"

#include <memory>

namespace parlune {

// The on-device model port over our own engine: one shared model, loaded from the chosen GGUF
// file on first use, with inference on a worker thread. Main thread only.
class LlmLanguageModelFramework : public LanguageModelFramework {
public:
    explicit LlmLanguageModelFramework(LlmInference::Options options);
    ~LlmLanguageModelFramework() override;
    LlmLanguageModelFramework(const LlmLanguageModelFramework&) = delete;
    LlmLanguageModelFramework& operator=(const LlmLanguageModelFramework&) = delete;

    LanguageModelAvailabilityStatus availability() const override;
    bool supportsCurrentLocale() const override;
    std::optional<std::int64_t> contextSize() const override;
    QCoro::Task<std::int64_t> tokenCountOfInstructions(QString instructions, std::stop_token token) override;
    QCoro::Task<std::int64_t> tokenCountOfPrompt(QString prompt, std::stop_token token) override;
    QCoro::Task<std::int64_t> tokenCountOfSchema(GenerationSchema schema, std::stop_token token) override;
    std::unique_ptr<LanguageModelSession> openSession(const QString& instructions) override;

    // Ends every request at its next token and refuses new ones; for shutting down.
    void stopAllWork() { inference_->stopAllWork(); }
    // Looks for the model file again at the next request instead of trusting the last lookup.
    void reconsiderModel() { inference_->reconsiderModel(); }
    // Drops cached instruction states; call on memory pressure.
    void releaseCaches() { inference_->releaseCaches(); }
    const std::optional<ModelFileReport>& chosenModel() const { return inference_->chosenModel(); }
    InstructionPrefixCache& prefixCache() { return inference_->prefixCache(); }
    const std::optional<LlmResponse>& lastResponse() const { return inference_->lastResponse(); }

    // Whether this processor has what the engine's fast paths need (AVX2 and FMA).
    static bool processorIsEligible();
    // Whether a model stating `languages` covers the language of `localeName` ("de_CH"); a
    // model that states none is taken to cover every language.
    static bool coversLanguage(const std::vector<std::string>& languages, const QString& localeName);

private:
    std::shared_ptr<LlmInference> inference_;
};

} // namespace parlune
