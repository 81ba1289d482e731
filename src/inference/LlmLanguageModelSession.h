#pragma once

#include "core/platform/LanguageModelFramework.h"
#include "inference/LlmBackend.h"

#include <memory>

namespace parlune {

class LlmInference;

// A conversation opened with instructions. One request at a time: a second one while the first
// runs fails with concurrentRequests. Main thread only.
class LlmLanguageModelSession : public LanguageModelSession {
public:
    LlmLanguageModelSession(std::shared_ptr<LlmInference> inference, QString instructions);

    void prewarm(const QString& promptPrefix) override;
    QCoro::Task<QString> respond(QString prompt, GenerationOptions options, std::stop_token token) override;
    QCoro::Task<GeneratedContent> respond(QString prompt, GenerationSchema schema, bool includeSchemaInPrompt,
                                          GenerationOptions options, std::stop_token token) override;

    // Timings of the last finished request (for benchmarks and the command line).
    const LlmResponse& lastResponse() const { return lastResponse_; }

    // How a schema is described to the model at the end of the prompt.
    static QString schemaDescription(const GenerationSchema& schema);
    // The filled properties of a generated object; throws decodingFailure when it does not parse.
    static GeneratedContent parseGeneratedObject(const std::string& json, const GenerationSchema& schema);

private:
    QCoro::Task<LlmResponse> run(LlmRequest request, std::stop_token token);

    std::shared_ptr<LlmInference> inference_;
    QString instructions_;
    bool responding_ = false;
    LlmResponse lastResponse_;
};

} // namespace parlune
