#include "core/engine/OnDeviceModelClient.h"

#include "core/async/CancellationError.h"
#include "core/async/Continuation.h"
#include "core/async/Sleep.h"
#include "core/engine/DeterministicTextNormalizer.h"
#include "core/engine/ImprovedPromptOutput.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/engine/RewriteOutputValidator.h"
#include "core/engine/RewritePrompt.h"
#include "core/platform/MemoryPressureSource.h"

#include <chrono>
#include <vector>

namespace parlune {

namespace {

using EngineKind = LocalRewriteEngineError::Kind;
using FrameworkKind = LanguageModelGenerationError::Kind;

// The pause before the warm-up's one-token request, so start-up work settles first.
constexpr std::chrono::seconds warmupDelay{1};

GenerationOptions greedyOptions(std::int64_t maximumTokens) {
    GenerationOptions options;
    options.sampling = GenerationOptions::Sampling::greedy;
    options.temperature = 0.0;
    options.maximumResponseTokens = maximumTokens;
    return options;
}

EngineKind engineKind(FrameworkKind kind) {
    switch (kind) {
    case FrameworkKind::exceededContextWindowSize:
        return EngineKind::selectionTooLong;
    case FrameworkKind::assetsUnavailable:
        return EngineKind::modelNotReady;
    case FrameworkKind::guardrailViolation:
    case FrameworkKind::refusal:
        return EngineKind::safetyRestricted;
    case FrameworkKind::unsupportedLanguageOrLocale:
        return EngineKind::unsupportedLocale;
    case FrameworkKind::rateLimited:
    case FrameworkKind::concurrentRequests:
        return EngineKind::modelBusy;
    case FrameworkKind::unsupportedGuide:
    case FrameworkKind::decodingFailure:
    case FrameworkKind::other:
        break;
    }
    return EngineKind::generationFailed;
}

} // namespace

// One warm-up shared by every prepare() that arrives while it runs.
struct OnDeviceModelClient::Preparation {
    std::unique_ptr<LanguageModelSession> session;
    std::uint64_t generation = 0;
    std::stop_source stop;
    bool finished = false;
    std::exception_ptr error;
    std::vector<Continuation<void>> waiters;
};

OnDeviceModelClient::OnDeviceModelClient(LanguageModelFramework& framework,
                                         MemoryPressureSource* memoryPressure)
    : framework_(framework), memoryPressure_(memoryPressure) {
    if (memoryPressure_) {
        memoryPressure_->start([owner = lifetime_.weak(this)](MemoryPressureLevel) {
            if (OnDeviceModelClient* client = owner.lock()) {
                client->invalidateWarmup();
            }
        });
    }
}

OnDeviceModelClient::~OnDeviceModelClient() {
    if (memoryPressure_) {
        memoryPressure_->cancel();
    }
    if (preparation_) {
        preparation_->stop.request_stop();
    }
}

LocalModelAvailability OnDeviceModelClient::availability() const {
    const LanguageModelAvailabilityStatus status = framework_.availability();
    if (status.isAvailable()) {
        return framework_.supportsCurrentLocale() ? LocalModelAvailability::available
                                                  : LocalModelAvailability::unsupportedLocale;
    }
    switch (*status.unavailableReason) {
    case LanguageModelUnavailableReason::deviceNotEligible:
        return LocalModelAvailability::deviceNotEligible;
    case LanguageModelUnavailableReason::intelligenceNotEnabled:
        return LocalModelAvailability::appleIntelligenceNotEnabled;
    case LanguageModelUnavailableReason::modelNotReady:
    case LanguageModelUnavailableReason::other:
        break;
    }
    return LocalModelAvailability::modelNotReady;
}

QString OnDeviceModelClient::availabilityDetail() const {
    return framework_.availability().detail;
}

void OnDeviceModelClient::ensureAvailable() const {
    switch (availability()) {
    case LocalModelAvailability::available:
        return;
    case LocalModelAvailability::deviceNotEligible:
        throw LocalRewriteEngineError(EngineKind::deviceNotEligible, availabilityDetail());
    case LocalModelAvailability::appleIntelligenceNotEnabled:
        throw LocalRewriteEngineError(EngineKind::appleIntelligenceNotEnabled, availabilityDetail());
    case LocalModelAvailability::modelNotReady:
        throw LocalRewriteEngineError(EngineKind::modelNotReady, availabilityDetail());
    case LocalModelAvailability::unsupportedLocale:
        throw LocalRewriteEngineError(EngineKind::unsupportedLocale);
    }
}

std::exception_ptr OnDeviceModelClient::sanitized(std::exception_ptr error) {
    try {
        std::rethrow_exception(error);
    } catch (const CancellationError&) {
        return error;
    } catch (const LocalRewriteEngineError&) {
        return error;
    } catch (const LanguageModelGenerationError& failure) {
        return std::make_exception_ptr(LocalRewriteEngineError(engineKind(failure.kind()), failure.detail()));
    } catch (...) {
        return std::make_exception_ptr(LocalRewriteEngineError(EngineKind::generationFailed));
    }
}

QCoro::Task<void> OnDeviceModelClient::prepare(std::stop_token token) {
    ensureAvailable();
    if (preparation_) {
        co_await join(preparation_, token);
        co_return;
    }
    if (warmupSession_) {
        warmupSession_->prewarm(RewritePrompt::warmupPrompt());
        co_return;
    }
    auto preparation = std::make_shared<Preparation>();
    preparation->session = framework_.openSession(RewritePrompt::warmupInstructions());
    preparation->session->prewarm(RewritePrompt::warmupPrompt());
    preparation->generation = preparationGeneration_;
    preparation_ = preparation;
    // Runs on its own; callers only wait for it, so one caller's cancellation leaves it running.
    (void)runPreparation(preparation, lifetime_.weak(this));
    co_await join(preparation, token);
}

QCoro::Task<void> OnDeviceModelClient::join(std::shared_ptr<Preparation> preparation, std::stop_token token) {
    if (preparation->finished) {
        if (preparation->error) {
            std::rethrow_exception(preparation->error);
        }
        co_return;
    }
    Continuation<void> done;
    preparation->waiters.push_back(done);
    co_await done.wait(token);
}

QCoro::Task<void> OnDeviceModelClient::runPreparation(std::shared_ptr<Preparation> preparation,
                                                      WeakRef<OnDeviceModelClient> owner) {
    std::exception_ptr error;
    try {
        const std::stop_token token = preparation->stop.get_token();
        co_await sleepFor(warmupDelay, token);
        // Arguments of a co_await are named first: GCC 12 may destroy temporaries there twice.
        const QString prompt = RewritePrompt::warmupPrompt();
        const GenerationOptions options = greedyOptions(1);
        (void)co_await preparation->session->respond(prompt, options, token);
    } catch (...) {
        error = sanitized(std::current_exception());
    }

    if (OnDeviceModelClient* client = owner.lock()) {
        const bool current = client->preparationGeneration_ == preparation->generation;
        if (!error && !current) {
            error = std::make_exception_ptr(CancellationError{}); // invalidated meanwhile
        }
        if (current && client->preparation_ == preparation) {
            client->preparation_.reset();
            if (!error) {
                client->warmupSession_ = std::move(preparation->session);
            }
        }
    } else if (!error) {
        error = std::make_exception_ptr(CancellationError{});
    }
    preparation->finished = true;
    preparation->error = error;
    for (Continuation<void>& waiter : preparation->waiters) {
        if (error) {
            waiter.resumeThrowing(error);
        } else {
            waiter.resume();
        }
    }
    preparation->waiters.clear();
}

void OnDeviceModelClient::invalidateWarmup() {
    ++preparationGeneration_;
    if (preparation_) {
        preparation_->stop.request_stop();
        preparation_.reset();
    }
    warmupSession_.reset();
}

QCoro::Task<QString> OnDeviceModelClient::rewrite(QString text, RewriteMode mode, QString preferences,
                                                  std::stop_token token) {
    try {
        co_return co_await generate(text, mode, preferences, token);
    } catch (...) {
        std::rethrow_exception(sanitized(std::current_exception()));
    }
}

QCoro::Task<QString> OnDeviceModelClient::generate(const QString& text, RewriteMode mode,
                                                   const QString& preferences, std::stop_token token) {
    if (token.stop_requested()) {
        throw CancellationError{};
    }
    // Arithmetic first: a refusal never waits for the model, its warm-up or another rewrite.
    RewritePrompt::refuseIfTooLong(text, preferences, mode);
    ensureAvailable();
    if (mode == RewriteMode::improveClarity) {
        if (std::optional<QString> fixed = DeterministicTextNormalizer::rewriteIfTriviallySafe(text)) {
            co_return *fixed;
        }
    }

    const FirstComeLock::Lease generation = co_await generationGate_.acquire(token);
    co_await prepare(token);

    const QString instructions = RewritePrompt::rewriteInstructions(mode, preferences);
    const QString prompt = RewritePrompt::prompt(text);
    const std::int64_t budget =
        co_await RewritePrompt::responseTokenBudget(framework_, instructions, prompt, text, mode, token);

    // A session of its own: nothing of one rewrite may leak into the next, and the warm-up
    // session never sees user text.
    const std::unique_ptr<LanguageModelSession> session = framework_.openSession(instructions);
    const GenerationOptions options = greedyOptions(budget);
    QString result;
    if (mode == RewriteMode::improvePrompt) {
        const GenerationSchema& schema = ImprovedPromptOutput::schema();
        const GeneratedContent content = co_await session->respond(prompt, schema, true, options, token);
        const std::optional<ImprovedPromptOutput> output =
            ImprovedPromptOutput::fromGeneratedContent(content);
        if (!output) {
            throw LocalRewriteEngineError(EngineKind::generationFailed);
        }
        result = RewriteOutputValidator::validatedImprovedPrompt(output->rewrittenPrompt, text);
    } else {
        const QString answer = co_await session->respond(prompt, options, token);
        result = RewriteOutputValidator::cleanedRewrite(answer, text);
    }

    if (token.stop_requested()) {
        throw CancellationError{};
    }
    if (result.trimmed().isEmpty()) {
        throw LocalRewriteEngineError(EngineKind::emptyRewrite);
    }
    co_return result;
}

} // namespace parlune
