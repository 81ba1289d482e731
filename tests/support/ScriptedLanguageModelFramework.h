#pragma once

#include "core/async/Continuation.h"
#include "core/async/MainThread.h"
#include "core/platform/LanguageModelFramework.h"
#include "core/platform/MemoryPressureSource.h"

#include <QString>

#include <deque>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace parlune::test {

// A model port whose answers the test decides. Every request is recorded; answers come from
// `answer` at once (after one turn of the event loop), or, while `holdResponses` is set, wait
// until the test completes the continuation in `held`.
class ScriptedLanguageModelFramework final : public LanguageModelFramework {
public:
    struct Request {
        QString instructions;
        QString prompt;
        GenerationOptions options;
        bool withSchema = false;
    };

    LanguageModelAvailabilityStatus status = LanguageModelAvailabilityStatus::available();
    bool localeSupported = true;
    std::optional<std::int64_t> context;
    std::int64_t instructionTokens = 0;
    std::int64_t promptTokens = 0;
    std::int64_t schemaTokens = 0;
    std::optional<LanguageModelGenerationError::Kind> countingError; // thrown by the instructions' count
    // Answer text for a request, or throws the error the framework should report.
    std::function<QString(const Request&)> answer = [](const Request&) { return QStringLiteral("fine"); };
    bool holdResponses = false;

    std::vector<Request> requests;
    std::vector<QString> openedWith; // instructions of every session opened
    std::vector<QString> prewarmed;  // instructions of every prewarmed session
    std::vector<QString> counted;    // "instructions", "prompt" or "schema" for every token count
    std::deque<Continuation<QString>> held;

    LanguageModelAvailabilityStatus availability() const override { return status; }
    bool supportsCurrentLocale() const override { return localeSupported; }
    std::optional<std::int64_t> contextSize() const override { return context; }
    QCoro::Task<std::int64_t> tokenCountOfInstructions(QString, std::stop_token) override {
        counted.push_back(QStringLiteral("instructions"));
        if (countingError) {
            throw LanguageModelGenerationError(*countingError);
        }
        co_return instructionTokens;
    }
    QCoro::Task<std::int64_t> tokenCountOfPrompt(QString, std::stop_token) override {
        counted.push_back(QStringLiteral("prompt"));
        co_return promptTokens;
    }
    QCoro::Task<std::int64_t> tokenCountOfSchema(GenerationSchema, std::stop_token) override {
        counted.push_back(QStringLiteral("schema"));
        co_return schemaTokens;
    }

    std::unique_ptr<LanguageModelSession> openSession(const QString& instructions) override {
        openedWith.push_back(instructions);
        return std::make_unique<Session>(*this, instructions);
    }

    std::size_t requestsWithInstructions(const QString& instructions) const {
        std::size_t count = 0;
        for (const Request& request : requests) {
            count += request.instructions == instructions ? 1 : 0;
        }
        return count;
    }

private:
    class Session final : public LanguageModelSession {
    public:
        Session(ScriptedLanguageModelFramework& owner, QString instructions)
            : owner_(owner), instructions_(std::move(instructions)) {}

        void prewarm(const QString&) override { owner_.prewarmed.push_back(instructions_); }

        QCoro::Task<QString> respond(QString prompt, GenerationOptions options,
                                     std::stop_token token) override {
            Request request{instructions_, prompt, options, false};
            co_return co_await answerFor(std::move(request), token);
        }

        QCoro::Task<GeneratedContent> respond(QString prompt, GenerationSchema schema, bool,
                                              GenerationOptions options, std::stop_token token) override {
            Request request{instructions_, prompt, options, true};
            const QString text = co_await answerFor(std::move(request), token);
            co_return GeneratedContent{{schema.properties.front().name, text}};
        }

    private:
        QCoro::Task<QString> answerFor(Request request, std::stop_token token) {
            owner_.requests.push_back(request);
            if (owner_.holdResponses) {
                Continuation<QString> reply;
                owner_.held.push_back(reply);
                co_return co_await reply.wait(token);
            }
            co_await yieldToEventLoop();
            co_return owner_.answer(request);
        }

        ScriptedLanguageModelFramework& owner_;
        QString instructions_;
    };
};

// A memory-pressure source the test fires by hand.
class ManualMemoryPressureSource final : public MemoryPressureSource {
public:
    void start(std::function<void(MemoryPressureLevel)> handler) override { handler_ = std::move(handler); }
    void cancel() override { handler_ = nullptr; }
    void fire(MemoryPressureLevel level) {
        if (handler_) {
            handler_(level);
        }
    }
    bool isStarted() const { return static_cast<bool>(handler_); }

private:
    std::function<void(MemoryPressureLevel)> handler_;
};

} // namespace parlune::test
