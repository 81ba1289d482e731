#include "inference/LlmLanguageModelFramework.h"

#include "inference/LlmLanguageModelSession.h"
#include "llm/tensor/CpuFeatures.h"

#include <QLocale>

namespace parlune {

namespace {

using Reason = LanguageModelUnavailableReason;

enum class Counted { instructions, prompt, schema };

// Built outside the coroutines: GCC 12 destroys lambda captures made inside them twice.
LlmInference::Work<std::int64_t> countWork(std::string text, Counted counted) {
    return [text = std::move(text), counted](LlmBackend& backend, const std::atomic<bool>&) -> std::int64_t {
        switch (counted) {
        case Counted::instructions:
            return backend.instructionTokenCount(text);
        case Counted::prompt:
            return backend.promptTokenCount(text);
        case Counted::schema:
            // The schema travels as text at the end of the prompt.
            return backend.promptTokenCount(text) - backend.promptTokenCount({});
        }
        return 0;
    };
}

} // namespace

LlmLanguageModelFramework::LlmLanguageModelFramework(LlmInference::Options options)
    : inference_(std::make_shared<LlmInference>(std::move(options))) {
    if (MemoryPressureSource* source = inference_->memoryPressure()) {
        // Cached instruction states are the one large thing that can be rebuilt on demand.
        source->start([weak = std::weak_ptr<LlmInference>(inference_)](MemoryPressureLevel) {
            if (auto inference = weak.lock()) {
                inference->releaseCaches();
            }
        });
    }
}

LlmLanguageModelFramework::~LlmLanguageModelFramework() {
    if (MemoryPressureSource* source = inference_->memoryPressure()) {
        source->cancel();
    }
}

bool LlmLanguageModelFramework::processorIsEligible() {
    const llm::CpuFeatures& features = llm::detectedCpuFeatures();
    return features.avx2 && features.fma;
}

bool LlmLanguageModelFramework::coversLanguage(const std::vector<std::string>& languages,
                                               const QString& localeName) {
    if (languages.empty()) {
        return true;
    }
    const QString language = localeName.section(QLatin1Char('_'), 0, 0).section(QLatin1Char('-'), 0, 0);
    for (const std::string& entry : languages) {
        const QString stated =
            QString::fromStdString(entry).section(QLatin1Char('_'), 0, 0).section(QLatin1Char('-'), 0, 0);
        if (stated.compare(language, Qt::CaseInsensitive) == 0) {
            return true;
        }
    }
    return false;
}

LanguageModelAvailabilityStatus LlmLanguageModelFramework::availability() const {
    const std::optional<ModelFileReport>& chosen = inference_->chosenModel();
    // A missing or unusable file is not this computer's fault; the detail names file and reason.
    if (!chosen) {
        return LanguageModelAvailabilityStatus::unavailable(
            Reason::modelNotReady, QString::fromStdString(ModelLocator::noModelExplanation()));
    }
    if (!chosen->usable()) {
        return LanguageModelAvailabilityStatus::unavailable(Reason::modelNotReady,
                                                            QString::fromStdString(chosen->explanation()));
    }
    if (!processorIsEligible()) {
        return LanguageModelAvailabilityStatus::unavailable(
            Reason::deviceNotEligible,
            QStringLiteral("This processor lacks AVX2 and FMA, which the on-device engine needs."));
    }
    return LanguageModelAvailabilityStatus::available();
}

bool LlmLanguageModelFramework::supportsCurrentLocale() const {
    const std::optional<ModelFileReport>& chosen = inference_->chosenModel();
    return !chosen || coversLanguage(chosen->languages, QLocale().name());
}

std::optional<std::int64_t> LlmLanguageModelFramework::contextSize() const {
    const std::optional<ModelFileReport>& chosen = inference_->chosenModel();
    if (!chosen || !chosen->usable() || chosen->contextLength <= 0) {
        return std::nullopt;
    }
    return chosen->contextLength;
}

QCoro::Task<std::int64_t> LlmLanguageModelFramework::tokenCountOfInstructions(QString instructions,
                                                                              std::stop_token token) {
    LlmInference::Work<std::int64_t> work = countWork(instructions.toStdString(), Counted::instructions);
    co_return co_await inference_->run<std::int64_t>(std::move(work), token);
}

QCoro::Task<std::int64_t> LlmLanguageModelFramework::tokenCountOfPrompt(QString prompt,
                                                                        std::stop_token token) {
    LlmInference::Work<std::int64_t> work = countWork(prompt.toStdString(), Counted::prompt);
    co_return co_await inference_->run<std::int64_t>(std::move(work), token);
}

QCoro::Task<std::int64_t> LlmLanguageModelFramework::tokenCountOfSchema(GenerationSchema schema,
                                                                        std::stop_token token) {
    const std::string description = LlmLanguageModelSession::schemaDescription(schema).toStdString();
    LlmInference::Work<std::int64_t> work = countWork(description, Counted::schema);
    co_return co_await inference_->run<std::int64_t>(std::move(work), token);
}

std::unique_ptr<LanguageModelSession> LlmLanguageModelFramework::openSession(const QString& instructions) {
    return std::make_unique<LlmLanguageModelSession>(inference_, instructions);
}

} // namespace parlune
