#include "inference/LlmLanguageModelSession.h"

#include "inference/LlmInference.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonValue>

namespace parlune {

namespace {

using Kind = LanguageModelGenerationError::Kind;

// Without a limit a response still ends well inside any supported context.
constexpr std::int64_t defaultMaximumTokens = 1024;

// Built outside the coroutines: GCC 12 destroys lambda captures moved from a coroutine's
// parameters twice.
LlmInference::Work<LlmResponse> generateWork(LlmRequest request) {
    return [request = std::move(request)](LlmBackend& backend, const std::atomic<bool>& stop) {
        return backend.generate(request, stop);
    };
}

} // namespace

LlmLanguageModelSession::LlmLanguageModelSession(std::shared_ptr<LlmInference> inference,
                                                 QString instructions)
    : inference_(std::move(inference)), instructions_(std::move(instructions)) {}

void LlmLanguageModelSession::prewarm(const QString&) {
    // The instructions are what every prompt of this session starts with; their state is kept.
    inference_->post(
        [instructions = instructions_.toStdString()](LlmBackend& backend, const std::atomic<bool>& stop) {
            backend.prewarm(instructions, stop);
        });
}

QCoro::Task<LlmResponse> LlmLanguageModelSession::run(LlmRequest request, std::stop_token token) {
    if (responding_) {
        throw LanguageModelGenerationError(Kind::concurrentRequests);
    }
    responding_ = true;
    struct Done {
        bool& flag;
        ~Done() { flag = false; }
    } done{responding_};
    LlmInference::Work<LlmResponse> work = generateWork(std::move(request));
    LlmResponse response = co_await inference_->run<LlmResponse>(std::move(work), token);
    lastResponse_ = response;
    inference_->recordResponse(response);
    co_return response;
}

QCoro::Task<QString> LlmLanguageModelSession::respond(QString prompt, GenerationOptions options,
                                                      std::stop_token token) {
    LlmRequest request{instructions_.toStdString(),
                       prompt.toStdString(),
                       options.maximumResponseTokens.value_or(defaultMaximumTokens),
                       {}};
    const LlmResponse response = co_await run(std::move(request), token);
    co_return QString::fromStdString(response.text);
}

QCoro::Task<GeneratedContent> LlmLanguageModelSession::respond(QString prompt, GenerationSchema schema,
                                                               bool includeSchemaInPrompt,
                                                               GenerationOptions options,
                                                               std::stop_token token) {
    if (includeSchemaInPrompt) {
        prompt += schemaDescription(schema);
    }
    LlmRequest request{instructions_.toStdString(),
                       prompt.toStdString(),
                       options.maximumResponseTokens.value_or(defaultMaximumTokens),
                       {}};
    for (const GenerationSchema::Property& property : schema.properties) {
        request.schemaProperties.push_back(property.name.toStdString());
    }
    if (request.schemaProperties.empty()) {
        throw LanguageModelGenerationError(Kind::unsupportedGuide);
    }
    const LlmResponse response = co_await run(std::move(request), token);
    co_return parseGeneratedObject(response.text, schema);
}

QString LlmLanguageModelSession::schemaDescription(const GenerationSchema& schema) {
    QString text =
        QStringLiteral("\n\nRespond with one JSON object (%1: %2) with these string properties, in this "
                       "order:")
            .arg(schema.typeName, schema.typeDescription);
    for (const GenerationSchema::Property& property : schema.properties) {
        text += QStringLiteral("\n- \"%1\": %2").arg(property.name, property.description);
    }
    return text;
}

GeneratedContent LlmLanguageModelSession::parseGeneratedObject(const std::string& json,
                                                               const GenerationSchema& schema) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(json), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        throw LanguageModelGenerationError(Kind::decodingFailure);
    }
    const QJsonObject object = document.object();
    GeneratedContent content;
    for (const GenerationSchema::Property& property : schema.properties) {
        const QJsonValue value = object.value(property.name);
        if (!value.isString()) {
            throw LanguageModelGenerationError(Kind::decodingFailure);
        }
        content.emplace(property.name, value.toString());
    }
    return content;
}

} // namespace parlune
