#pragma once

#include "core/modes/RewriteMode.h"
#include "core/platform/LanguageModelFramework.h"

#include <QCoro/QCoroTask>
#include <QString>

#include <cstdint>
#include <stop_token>

namespace parlune {

// The texts sent to the model: session instructions per mode, the tagged selection, the warm-up
// texts, and the response budget derived from them. The wording is part of the product's
// behaviour; change it only together with its tests.
class RewritePrompt {
public:
    RewritePrompt() = delete;

    // Written into the "Improve prompt" instructions; raise it whenever their wording changes.
    static constexpr int improvePromptVersion = 5;

    // The one-sentence task of a mode.
    static QString instruction(RewriteMode mode);

    // The instructions that open a fresh session. `preferences` is the user's free text for the
    // mode; only its ends are trimmed, and blank preferences count as none.
    static QString rewriteInstructions(RewriteMode mode, const QString& preferences);

    // The selection inside its fixed wrapper, untouched.
    static QString prompt(const QString& text);

    // A cheap upper-bound guess: a token per three UTF-8 bytes, rounded up, at least 1.
    static std::int64_t estimatedTokenCount(const QString& text);

    // Whether a mode's writing preferences are longer than any rewrite can carry (the preferences
    // editor may warn as the user types). Only the trimmed text counts.
    static bool preferencesAreTooLong(const QString& preferences);
    // Refuses, by arithmetic alone and before anything is built from them, a selection that can
    // never fit (LocalRewriteEngineError selectionTooLong) or preferences that are too long
    // (preferencesTooLong).
    static void refuseIfTooLong(const QString& text, const QString& preferences, RewriteMode mode);

    // The maximum number of response tokens to request for `text`, or LocalRewriteEngineError
    // selectionTooLong when the request would not fit the model. Counts exactly where the
    // framework reports a context size; errors of its counting reach the caller unchanged.
    static QCoro::Task<std::int64_t> responseTokenBudget(LanguageModelFramework& model, QString instructions,
                                                         QString prompt, QString text, RewriteMode mode,
                                                         std::stop_token token);

    // The readiness check's session instructions, and its prompt (also its prewarm prefix).
    // They never carry user text.
    static QString warmupInstructions();
    static QString warmupPrompt();
};

} // namespace parlune
