#pragma once

#include <QCoro/QCoroTask>
#include <QString>

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace parlune {

// Why the model cannot be used now.
enum class LanguageModelUnavailableReason {
    deviceNotEligible,
    intelligenceNotEnabled,
    modelNotReady,
    other,
};

// The model's availability: ready, or unavailable for a reason.
struct LanguageModelAvailabilityStatus {
    std::optional<LanguageModelUnavailableReason> unavailableReason; // none: available
    QString detail; // when unavailable: what exactly is wrong, e.g. the model file and its problem

    bool isAvailable() const { return !unavailableReason.has_value(); }
    static LanguageModelAvailabilityStatus available() { return {}; }
    static LanguageModelAvailabilityStatus unavailable(LanguageModelUnavailableReason reason,
                                                       QString detail = {}) {
        return {reason, std::move(detail)};
    }
};

// How a response is sampled. Rewrites always decode greedily at temperature 0.
struct GenerationOptions {
    enum class Sampling { greedy };

    Sampling sampling = Sampling::greedy;
    double temperature = 0.0;
    std::optional<std::int64_t> maximumResponseTokens;
};

// A declared output type for constrained generation: a JSON object whose string properties are
// filled token by token. The descriptions guide the model and are part of the prompt.
struct GenerationSchema {
    struct Property {
        QString name;
        QString description;
    };

    QString typeName;
    QString typeDescription;
    std::vector<Property> properties; // all of string type, all required, in this order
};

// The filled properties of a schema response, by property name.
using GeneratedContent = std::map<QString, QString>;

// Failures of a generation, as the framework classifies them.
class LanguageModelGenerationError : public std::exception {
public:
    enum class Kind {
        exceededContextWindowSize,
        assetsUnavailable,
        guardrailViolation,
        refusal,
        unsupportedGuide,
        decodingFailure,
        unsupportedLanguageOrLocale,
        rateLimited,
        concurrentRequests,
        other,
    };

    explicit LanguageModelGenerationError(Kind kind, QString detail = {})
        : kind_(kind), detail_(std::move(detail)) {}
    Kind kind() const { return kind_; }
    // What exactly went wrong (e.g. the model file and its problem); may be empty.
    const QString& detail() const { return detail_; }
    const char* what() const noexcept override { return "The language model could not generate a response."; }

private:
    Kind kind_;
    QString detail_;
};

// One conversation with the model, opened with its instructions. Main thread only; long work runs
// elsewhere and resumes the caller on the main thread. Failures are LanguageModelGenerationError,
// or CancellationError when the token is stopped.
class LanguageModelSession {
public:
    virtual ~LanguageModelSession() = default;

    // A hint to load the model and process the instructions (and this prompt prefix) ahead of use.
    virtual void prewarm(const QString& promptPrefix) = 0;

    // The answer text to `prompt`.
    virtual QCoro::Task<QString> respond(QString prompt, GenerationOptions options,
                                         std::stop_token token) = 0;

    // An answer constrained to `schema`; with `includeSchemaInPrompt` the schema is also described
    // to the model in the prompt. Every property of the schema is present in the result.
    virtual QCoro::Task<GeneratedContent> respond(QString prompt, GenerationSchema schema,
                                                  bool includeSchemaInPrompt, GenerationOptions options,
                                                  std::stop_token token) = 0;
};

// The on-device language model: one shared default model.
class LanguageModelFramework {
public:
    virtual ~LanguageModelFramework() = default;

    virtual LanguageModelAvailabilityStatus availability() const = 0;
    // Whether the model supports the user's current language and region.
    virtual bool supportsCurrentLocale() const = 0;

    // The context window in tokens. A framework reports it only when it also counts tokens exactly
    // (the three operations below); without it callers fall back to estimates.
    virtual std::optional<std::int64_t> contextSize() const = 0;
    virtual QCoro::Task<std::int64_t> tokenCountOfInstructions(QString instructions,
                                                               std::stop_token token) = 0;
    virtual QCoro::Task<std::int64_t> tokenCountOfPrompt(QString prompt, std::stop_token token) = 0;
    virtual QCoro::Task<std::int64_t> tokenCountOfSchema(GenerationSchema schema, std::stop_token token) = 0;

    // A fresh session with no tools and these instructions.
    virtual std::unique_ptr<LanguageModelSession> openSession(const QString& instructions) = 0;
};

} // namespace parlune
