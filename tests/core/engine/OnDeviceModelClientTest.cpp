#include "core/engine/OnDeviceModelClient.h"
#include "core/diagnostics/UserFacingErrorMessage.h"

#include "core/async/CancellationError.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/engine/RewritePrompt.h"
#include "support/RunTask.h"
#include "support/ScriptedLanguageModelFramework.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace parlune {
namespace {

using test::ScriptedLanguageModelFramework;
using EngineKind = LocalRewriteEngineError::Kind;
using FrameworkKind = LanguageModelGenerationError::Kind;
using Reason = LanguageModelUnavailableReason;

std::optional<EngineKind> engineKindOf(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const LocalRewriteEngineError& failure) {
        return failure.kind();
    } catch (...) {
        return std::nullopt;
    }
}

bool isCancellationError(const std::exception_ptr& error) {
    return error && isCancellation(error);
}

struct Outcome {
    bool done = false;
    std::optional<QString> text;
    std::exception_ptr error;
};

QCoro::Task<void> rewriteInto(OnDeviceModelClient& client, QString text, RewriteMode mode,
                              std::stop_token token, std::shared_ptr<Outcome> outcome) {
    try {
        outcome->text = co_await client.rewrite(text, mode, QString(), token);
    } catch (...) {
        outcome->error = std::current_exception();
    }
    outcome->done = true;
}

QCoro::Task<void> prepareInto(OnDeviceModelClient& client, std::stop_token token,
                              std::shared_ptr<Outcome> outcome) {
    try {
        co_await client.prepare(token);
    } catch (...) {
        outcome->error = std::current_exception();
    }
    outcome->done = true;
}

std::exception_ptr rewriteError(OnDeviceModelClient& client, const QString& text, RewriteMode mode) {
    try {
        (void)test::runTask(client.rewrite(text, mode, QString(), {}));
    } catch (...) {
        return std::current_exception();
    }
    return nullptr;
}

class OnDeviceModelClientTest : public ::testing::Test {
protected:
    ScriptedLanguageModelFramework framework;
    test::ManualMemoryPressureSource pressure;
    OnDeviceModelClient client{framework, nullptr};
};

TEST_F(OnDeviceModelClientTest, AvailabilityFollowsTheFrameworkAndTheLocale) {
    OnDeviceModelClient watched(framework, &pressure);
    EXPECT_TRUE(pressure.isStarted());
    const std::pair<Reason, LocalModelAvailability> cases[] = {
        {Reason::deviceNotEligible, LocalModelAvailability::deviceNotEligible},
        {Reason::intelligenceNotEnabled, LocalModelAvailability::appleIntelligenceNotEnabled},
        {Reason::modelNotReady, LocalModelAvailability::modelNotReady},
        {Reason::other, LocalModelAvailability::modelNotReady},
    };
    for (const auto& [reason, expected] : cases) {
        framework.status = LanguageModelAvailabilityStatus::unavailable(reason);
        EXPECT_EQ(watched.availability(), expected);
        EXPECT_THROW(watched.ensureAvailable(), LocalRewriteEngineError);
    }
    framework.status = LanguageModelAvailabilityStatus::available();
    EXPECT_EQ(watched.availability(), LocalModelAvailability::available);
    EXPECT_NO_THROW(watched.ensureAvailable());
    framework.localeSupported = false;
    EXPECT_EQ(watched.availability(), LocalModelAvailability::unsupportedLocale);
}

TEST_F(OnDeviceModelClientTest, UnavailableModelFailsBeforeTheGateAndTrivialClarityNeedsNoModel) {
    const QString detail = QStringLiteral("The model file /m/x.gguf cannot be used: not a GGUF file.");
    framework.status = LanguageModelAvailabilityStatus::unavailable(Reason::modelNotReady, detail);
    EXPECT_EQ(client.availabilityDetail(), detail);
    const std::exception_ptr error =
        rewriteError(client, QStringLiteral("Some text here"), RewriteMode::casual);
    EXPECT_EQ(engineKindOf(error), EngineKind::modelNotReady);
    EXPECT_EQ(UserFacingErrorMessage::message(error),
              QStringLiteral("The on-device model is still preparing. Try again when it is ready."));
    EXPECT_EQ(UserFacingErrorMessage::detail(error), detail);
    framework.status = LanguageModelAvailabilityStatus::available();
    framework.localeSupported = false;
    EXPECT_EQ(engineKindOf(rewriteError(client, QStringLiteral("Some text here"), RewriteMode::casual)),
              EngineKind::unsupportedLocale);
    EXPECT_TRUE(framework.openedWith.empty());

    framework.localeSupported = true;
    EXPECT_EQ(
        test::runTask(client.rewrite(QStringLiteral("Hello  world"), RewriteMode::improveClarity, {}, {})),
        QStringLiteral("Hello world"));
    EXPECT_TRUE(framework.openedWith.empty());
    EXPECT_FALSE(client.generationGate().isHeld());
}

TEST_F(OnDeviceModelClientTest, LengthRefusalsComeFirstAndNameWhatIsTooLong) {
    // Unavailable too: a refusal by arithmetic is given before the model is even asked about.
    framework.status = LanguageModelAvailabilityStatus::unavailable(Reason::modelNotReady);
    const QString huge(5'000'000, QLatin1Char('x'));
    EXPECT_EQ(engineKindOf(rewriteError(client, huge, RewriteMode::casual)), EngineKind::selectionTooLong);
    EXPECT_EQ(engineKindOf(rewriteError(client, huge, RewriteMode::improveClarity)),
              EngineKind::selectionTooLong);

    framework.status = LanguageModelAvailabilityStatus::available();
    const QString preferences = QString(QStringLiteral("Use short words. ")).repeated(1200); // 20 KB
    try {
        (void)test::runTask(
            client.rewrite(QStringLiteral("Two words"), RewriteMode::casual, preferences, {}));
        FAIL() << "long preferences were accepted";
    } catch (const LocalRewriteEngineError& failure) {
        EXPECT_EQ(failure.kind(), EngineKind::preferencesTooLong);
        EXPECT_EQ(
            UserFacingErrorMessage::message(failure),
            QStringLiteral("The writing preferences for this mode are too long for the on-device model. "
                           "Shorten them in Parlune Settings."));
    }
    EXPECT_TRUE(RewritePrompt::preferencesAreTooLong(preferences));
    EXPECT_FALSE(RewritePrompt::preferencesAreTooLong(QStringLiteral("  Short lines.  ")));
    // Neither waited for the warm-up, took the gate or opened a session.
    EXPECT_TRUE(framework.openedWith.empty());
    EXPECT_FALSE(client.isWarming());
    EXPECT_FALSE(client.generationGate().isHeld());
}

TEST_F(OnDeviceModelClientTest, StyleRewriteWarmsOnceAndUsesAFreshSessionEachTime) {
    framework.answer = [](const ScriptedLanguageModelFramework::Request&) {
        return QStringLiteral("\n<rewritten_text>\nShorter.\n</rewritten_text>\n");
    };
    const QString text = QStringLiteral("This is a rather long sentence.");
    EXPECT_EQ(test::runTask(client.rewrite(text, RewriteMode::makeConcise, QStringLiteral(" Be brief "), {})),
              QStringLiteral("Shorter."));

    ASSERT_EQ(framework.openedWith.size(), 2u);
    EXPECT_EQ(framework.openedWith[0], RewritePrompt::warmupInstructions());
    EXPECT_EQ(framework.openedWith[1],
              RewritePrompt::rewriteInstructions(RewriteMode::makeConcise, QStringLiteral("Be brief")));
    ASSERT_EQ(framework.requests.size(), 2u);
    EXPECT_EQ(framework.requests[0].prompt, RewritePrompt::warmupPrompt());
    EXPECT_EQ(framework.requests[0].options.maximumResponseTokens, 1);
    const auto& request = framework.requests[1];
    EXPECT_EQ(request.prompt, QStringLiteral("<parlune_selected_text>\n") + text +
                                  QStringLiteral("\n</parlune_selected_text>"));
    EXPECT_EQ(request.options.maximumResponseTokens, 64);
    EXPECT_EQ(request.options.temperature, 0.0);
    EXPECT_FALSE(request.withSchema);
    EXPECT_TRUE(client.isWarm());

    EXPECT_EQ(test::runTask(client.rewrite(text, RewriteMode::makeConcise, {}, {})),
              QStringLiteral("Shorter."));
    EXPECT_EQ(framework.requestsWithInstructions(RewritePrompt::warmupInstructions()), 1u);
    EXPECT_EQ(framework.openedWith.size(), 3u); // the kept warm-up session is only prewarmed again
    EXPECT_EQ(framework.prewarmed.size(), 2u);
    EXPECT_FALSE(client.generationGate().isHeld());
}

TEST_F(OnDeviceModelClientTest, ImprovePromptAnswersAreRebuiltOrRejectedAndEmptyAnswersFail) {
    QString reply;
    framework.answer = [&reply](const ScriptedLanguageModelFramework::Request&) { return reply; };
    const QString text = QStringLiteral("write a poem");

    reply =
        QStringLiteral("- **Task:** Write a poem.\n- **Audience and focus:** Friends.\n- **Requirements:** "
                       "Rhymes.\n- **Output format:** Four lines.");
    EXPECT_EQ(test::runTask(client.rewrite(text, RewriteMode::improvePrompt, {}, {})),
              QStringLiteral("Task: Write a poem.\nAudience and focus: Friends.\nRequirements: Rhymes.\n"
                             "Output format: Four lines."));
    EXPECT_TRUE(framework.requests.back().withSchema);
    EXPECT_EQ(framework.requests.back().options.maximumResponseTokens, 128);

    reply = QStringLiteral("Task: Write a poem.\nRequirements: Rhymes.\nOutput format: Four lines.");
    EXPECT_EQ(engineKindOf(rewriteError(client, text, RewriteMode::improvePrompt)),
              EngineKind::generationFailed);
    reply = QStringLiteral("Task: a\nAudience and focus: b\nRequirements:\nOutput format: c");
    EXPECT_EQ(engineKindOf(rewriteError(client, text, RewriteMode::improvePrompt)), EngineKind::emptyRewrite);

    for (const QString& empty :
         {QStringLiteral("  \n\t"), QStringLiteral("<rewritten_text>\n</rewritten_text>")}) {
        reply = empty;
        EXPECT_EQ(engineKindOf(rewriteError(client, text, RewriteMode::professional)),
                  EngineKind::emptyRewrite);
    }
    EXPECT_FALSE(client.generationGate().isHeld());
}

TEST_F(OnDeviceModelClientTest, FrameworkErrorsAreSanitised) {
    test::runTask(client.prepare({}));
    const std::pair<FrameworkKind, EngineKind> table[] = {
        {FrameworkKind::exceededContextWindowSize, EngineKind::selectionTooLong},
        {FrameworkKind::assetsUnavailable, EngineKind::modelNotReady},
        {FrameworkKind::guardrailViolation, EngineKind::safetyRestricted},
        {FrameworkKind::refusal, EngineKind::safetyRestricted},
        {FrameworkKind::unsupportedGuide, EngineKind::generationFailed},
        {FrameworkKind::decodingFailure, EngineKind::generationFailed},
        {FrameworkKind::unsupportedLanguageOrLocale, EngineKind::unsupportedLocale},
        {FrameworkKind::rateLimited, EngineKind::modelBusy},
        {FrameworkKind::concurrentRequests, EngineKind::modelBusy},
        {FrameworkKind::other, EngineKind::generationFailed},
    };
    for (const auto& [thrown, expected] : table) {
        framework.answer = [thrown = thrown](const ScriptedLanguageModelFramework::Request&) -> QString {
            throw LanguageModelGenerationError(thrown);
        };
        EXPECT_EQ(engineKindOf(rewriteError(client, QStringLiteral("Some text"), RewriteMode::casual)),
                  expected);
        EXPECT_FALSE(client.generationGate().isHeld());
    }
    framework.answer = [](const ScriptedLanguageModelFramework::Request&) -> QString {
        throw std::runtime_error("anything else");
    };
    EXPECT_EQ(engineKindOf(rewriteError(client, QStringLiteral("Some text"), RewriteMode::casual)),
              EngineKind::generationFailed);
    EXPECT_TRUE(
        isCancellationError(OnDeviceModelClient::sanitized(std::make_exception_ptr(CancellationError{}))));
    EXPECT_EQ(engineKindOf(OnDeviceModelClient::sanitized(
                  std::make_exception_ptr(LocalRewriteEngineError(EngineKind::emptyRewrite)))),
              EngineKind::emptyRewrite);
}

TEST_F(OnDeviceModelClientTest, ConcurrentPreparationsShareOneWarmup) {
    auto first = std::make_shared<Outcome>();
    auto second = std::make_shared<Outcome>();
    QCoro::Task<void> a = prepareInto(client, {}, first);
    QCoro::Task<void> b = prepareInto(client, {}, second);
    EXPECT_TRUE(client.isWarming());
    ASSERT_TRUE(test::pumpUntil([&] { return first->done && second->done; }));
    EXPECT_FALSE(first->error);
    EXPECT_FALSE(second->error);
    EXPECT_EQ(framework.openedWith.size(), 1u);
    EXPECT_EQ(framework.requests.size(), 1u);
    EXPECT_TRUE(client.isWarm());
}

TEST_F(OnDeviceModelClientTest, MemoryPressureDuringWarmupCancelsItAndLeavesTheClientCold) {
    OnDeviceModelClient watched(framework, &pressure);
    auto outcome = std::make_shared<Outcome>();
    QCoro::Task<void> warming = prepareInto(watched, {}, outcome); // now in its pause before the request
    pressure.fire(MemoryPressureLevel::warning);
    ASSERT_TRUE(test::pumpUntil([&] { return outcome->done; }));
    EXPECT_TRUE(isCancellationError(outcome->error));
    EXPECT_FALSE(watched.isWarm());
    EXPECT_FALSE(watched.isWarming());
    EXPECT_TRUE(framework.requests.empty());

    EXPECT_EQ(test::runTask(watched.rewrite(QStringLiteral("Some text"), RewriteMode::casual, {}, {})),
              QStringLiteral("fine"));
    EXPECT_EQ(framework.requestsWithInstructions(RewritePrompt::warmupInstructions()), 1u);
    EXPECT_EQ(framework.openedWith.size(), 3u); // two warm-up sessions, one rewrite session
    pressure.fire(MemoryPressureLevel::critical);
    EXPECT_FALSE(watched.isWarm());
}

TEST_F(OnDeviceModelClientTest, CancellationWhileWaitingForTheGateOrGeneratingReleasesTheGate) {
    test::runTask(client.prepare({}));
    framework.holdResponses = true;

    auto first = std::make_shared<Outcome>();
    auto second = std::make_shared<Outcome>();
    std::stop_source firstStop;
    std::stop_source secondStop;
    QCoro::Task<void> a =
        rewriteInto(client, QStringLiteral("First text"), RewriteMode::casual, firstStop.get_token(), first);
    ASSERT_TRUE(test::pumpUntil([&] { return framework.held.size() == 1; }));
    QCoro::Task<void> b = rewriteInto(client, QStringLiteral("Second text"), RewriteMode::casual,
                                      secondStop.get_token(), second);
    ASSERT_TRUE(test::pumpUntil([&] { return client.generationGate().waiterCount() == 1; }));

    secondStop.request_stop();
    ASSERT_TRUE(test::pumpUntil([&] { return second->done; }));
    EXPECT_TRUE(isCancellationError(second->error));
    EXPECT_FALSE(first->done);
    EXPECT_TRUE(client.generationGate().isHeld());

    firstStop.request_stop(); // during generation
    ASSERT_TRUE(test::pumpUntil([&] { return first->done; }));
    EXPECT_TRUE(isCancellationError(first->error));
    EXPECT_FALSE(client.generationGate().isHeld());

    framework.holdResponses = false;
    EXPECT_EQ(test::runTask(client.rewrite(QStringLiteral("Third text"), RewriteMode::casual, {}, {})),
              QStringLiteral("fine"));
}

} // namespace
} // namespace parlune
