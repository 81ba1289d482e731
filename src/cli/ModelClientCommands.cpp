#include "cli/ModelClientCommands.h"

#include "core/async/RunUntilDone.h"
#include "core/diagnostics/PrintableText.h"
#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/modes/RewriteMode.h"
#include "core/settings/SettingsStore.h"
#include "inference/ModelLocator.h"
#include "inference/OnDeviceEngine.h"
#include "platform/linux/QSettingsUserDefaults.h"

#include <QCoreApplication>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <iterator>
#include <optional>
#include <string>

namespace parlune::cli {

namespace {

constexpr const char* rewriteUsage = "rewrite --mode MODE [--preferences TEXT] [--model FILE] [--stats] "
                                     "[--no-draft] [--bench-response-tokens N]";

std::string settingModelPath() {
    QSettingsUserDefaults defaults;
    return defaults.string(QString::fromLatin1(SettingsStore::localModelPathKey))
        .value_or(QString())
        .trimmed()
        .toStdString();
}

void printReport(const ModelFileReport& report, bool chosen) {
    std::printf("%s %s  (%s)\n", chosen ? "*" : " ", printableText(report.path.string()).c_str(),
                ModelLocator::sourceName(report.source));
    if (report.usable()) {
        std::printf("    usable: %s, %s, context %lld tokens%s\n", report.name.c_str(),
                    report.architecture.c_str(), static_cast<long long>(report.contextLength),
                    report.languages.empty() ? "" : ", languages stated");
    } else {
        std::printf("    unusable: %s\n", printableText(report.problem, 1024).c_str());
    }
}

int runModels(const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        std::fprintf(stderr, "parlune-cli models: takes no arguments\n");
        return 2;
    }
    const ModelLocator::Places places = ModelLocator::placesFromEnvironment(settingModelPath());
    const std::vector<ModelFileReport> reports = ModelLocator::survey(places);
    const std::optional<ModelFileReport> chosen = ModelLocator::choose(places);
    std::printf("Models folder: %s\n", printableText(places.modelsFolder.string()).c_str());
    if (reports.empty()) {
        std::printf("No model file found. Put a GGUF model in the models folder, set PARLUNE_MODEL, or set "
                    "localModelPath in the settings.\n");
        return 1;
    }
    for (const ModelFileReport& report : reports) {
        printReport(report, chosen && chosen->path == report.path && chosen->source == report.source);
    }
    if (!chosen || !chosen->usable()) {
        std::printf("No usable model file.\n");
        return 1;
    }
    return 0;
}

struct RewriteArguments {
    RewriteMode mode = RewriteMode::improveClarity;
    QString preferences;
    std::string model;
    bool stats = false;
    bool draft = true;
    std::optional<std::int64_t> benchResponseTokens;
};

std::optional<RewriteArguments> parseRewriteArguments(const std::vector<std::string>& arguments) {
    RewriteArguments parsed;
    bool haveMode = false;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& name = arguments[i];
        if (name == "--stats") {
            parsed.stats = true;
            continue;
        }
        if (name == "--no-draft") {
            parsed.draft = false;
            continue;
        }
        if (i + 1 >= arguments.size()) {
            return std::nullopt;
        }
        const std::string& value = arguments[++i];
        if (name == "--mode") {
            const std::optional<RewriteMode> mode = rewrite_mode::fromRawValue(value);
            if (!mode) {
                std::fprintf(stderr, "parlune-cli rewrite: unknown mode \"%s\"\n", value.c_str());
                return std::nullopt;
            }
            parsed.mode = *mode;
            haveMode = true;
        } else if (name == "--preferences") {
            parsed.preferences = QString::fromStdString(value);
        } else if (name == "--model") {
            parsed.model = value;
        } else if (name == "--bench-response-tokens") {
            const long long count = std::atoll(value.c_str());
            if (count <= 0) {
                return std::nullopt;
            }
            parsed.benchResponseTokens = count;
        } else {
            return std::nullopt;
        }
    }
    return haveMode ? std::optional(parsed) : std::nullopt;
}

int runRewrite(const std::vector<std::string>& arguments) {
    const std::optional<RewriteArguments> parsed = parseRewriteArguments(arguments);
    if (!parsed) {
        std::fprintf(stderr, "usage: parlune-cli %s\n", rewriteUsage);
        return 2;
    }
    // Far more than any rewrite can take: a longer input is refused before it is read whole.
    constexpr std::size_t maximumInputBytes = std::size_t{1} << 20;
    std::string input(maximumInputBytes + 1, '\0');
    input.resize(std::fread(input.data(), 1, input.size(), stdin));
    if (input.size() > maximumInputBytes) {
        std::fprintf(stderr, "parlune-cli rewrite: %s\n",
                     UserFacingErrorMessage::message(
                         LocalRewriteEngineError(LocalRewriteEngineError::Kind::selectionTooLong))
                         .toStdString()
                         .c_str());
        return 1;
    }
    const QString text = QString::fromStdString(input);
    if (text.trimmed().isEmpty()) {
        // As for a selection of blanks: nothing to rewrite, and the model would only invent text.
        std::fprintf(stderr, "parlune-cli rewrite: no text to rewrite on standard input (it is empty or only "
                             "whitespace)\n");
        return 1;
    }

    OnDeviceEngine engine(OnDeviceEngine::Options{
        .explicitModelPath = parsed->model,
        .settingModelPath = [] { return QString::fromStdString(settingModelPath()); },
        .forcedResponseTokens = parsed->benchResponseTokens,
        .draftFromPrompt = parsed->draft,
    });
    LlmLanguageModelFramework& framework = engine.framework();

    const auto started = std::chrono::steady_clock::now();
    std::optional<QString> result;
    std::exception_ptr error;
    try {
        result = runUntilDone(engine.client()->rewrite(text, parsed->mode, parsed->preferences, {}));
    } catch (...) {
        error = std::current_exception();
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();

    if (parsed->stats) {
        // Counts and times only; the texts stay out of the report.
        std::fprintf(stderr, "total %.3f s", seconds);
        if (const std::optional<LlmResponse>& last = framework.lastResponse()) {
            std::fprintf(stderr,
                         "; last response: prompt %lld tokens (%lld from the instruction cache), %lld tokens "
                         "generated, first token after %.3f s, %.3f s in all",
                         static_cast<long long>(last->promptTokens),
                         static_cast<long long>(last->promptTokensReused),
                         static_cast<long long>(last->tokens), last->secondsToFirstToken, last->totalSeconds);
            std::fprintf(stderr, "; drafted %lld tokens, %lld accepted, %lld forward passes after the prompt",
                         static_cast<long long>(last->draftTokensProposed),
                         static_cast<long long>(last->draftTokensAccepted),
                         static_cast<long long>(last->forwardPasses));
        }
        std::fprintf(stderr, "\n");
    }
    if (error) {
        std::fprintf(stderr, "parlune-cli rewrite: %s\n",
                     UserFacingErrorMessage::message(error).toStdString().c_str());
        if (const QString detail = UserFacingErrorMessage::detail(error); !detail.isEmpty()) {
            std::fprintf(stderr, "parlune-cli rewrite: %s\n",
                         printableText(detail.toStdString(), 2048).c_str());
        }
        return 1;
    }
    const std::string output = result->toStdString();
    std::fwrite(output.data(), 1, output.size(), stdout);
    std::fputc('\n', stdout);
    return 0;
}

} // namespace

CliCommand modelsCommand() {
    return CliCommand{"models", "models", "list the model files found and which one is used", &runModels};
}

CliCommand rewriteCommand() {
    return CliCommand{"rewrite", rewriteUsage, "rewrite standard input with the on-device model",
                      &runRewrite};
}

} // namespace parlune::cli
