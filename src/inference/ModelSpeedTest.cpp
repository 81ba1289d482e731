#include "inference/ModelSpeedTest.h"

#include "core/engine/RewritePrompt.h"
#include "inference/OnDeviceEngine.h"

#include <algorithm>

namespace parlune {

namespace {

// A paragraph the size of a typical selection.
const char* const sample =
    "I wanted to let you know that the report we talked about last week is going to be a little late, "
    "because the numbers from two of the regional offices have not arrived yet, and it seems better to "
    "wait for everything than to send something incomplete to the board.";

} // namespace

QCoro::Task<ModelSpeedTest::Result> ModelSpeedTest::measure(QString path, std::stop_token token) {
    OnDeviceEngine engine(OnDeviceEngine::Options{.explicitModelPath = path.toStdString(),
                                                  .forcedResponseTokens = generatedTokens});
    LlmLanguageModelFramework& framework = engine.framework();
    const QString instructions = RewritePrompt::rewriteInstructions(RewriteMode::makeConcise, {});
    const QString prompt = RewritePrompt::prompt(QString::fromUtf8(sample));
    GenerationOptions loadOnly;
    loadOnly.maximumResponseTokens = 1;
    (void)co_await framework.openSession(instructions)->respond(prompt, loadOnly, token);
    // Timed without the instruction cache, as the first rewrite after a model change runs.
    framework.releaseCaches();
    GenerationOptions timed;
    timed.maximumResponseTokens = generatedTokens;
    (void)co_await framework.openSession(instructions)->respond(prompt, timed, token);
    const LlmResponse& response = *framework.lastResponse();
    Result result;
    result.promptTokensPerSecond =
        static_cast<double>(response.promptTokens) / std::max(response.secondsToFirstToken, 1e-6);
    result.generatedTokensPerSecond = static_cast<double>(std::max<std::int64_t>(response.tokens - 1, 0)) /
                                      std::max(response.totalSeconds - response.secondsToFirstToken, 1e-6);
    co_return result;
}

QString ModelSpeedTest::describe(const Result& result) {
    return QStringLiteral("Reads %1 tokens/s, writes %2 tokens/s on this computer.")
        .arg(result.promptTokensPerSecond, 0, 'f', 0)
        .arg(result.generatedTokensPerSecond, 0, 'f', 1);
}

} // namespace parlune
