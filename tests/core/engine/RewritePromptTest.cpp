#include "core/engine/RewritePrompt.h"
#include "core/engine/ImprovedPromptOutput.h"
#include "core/engine/LocalRewriteEngineError.h"

#include "support/RunTask.h"
#include "support/ScriptedLanguageModelFramework.h"

#include <gtest/gtest.h>

#include <QSet>

#include <algorithm>
#include <cstring>

namespace parlune {
namespace {

QString utf8(const char* text) {
    return QString::fromUtf8(text);
}

const RewriteMode styleModes[] = {RewriteMode::improveClarity, RewriteMode::makeConcise,
                                  RewriteMode::professional, RewriteMode::casual};

TEST(RewritePromptInstructionsTest, StyleModesAddATrimmedStyleLineOnlyForPreferences) {
    QSet<QString> instructions;
    for (const RewriteMode mode : styleModes) {
        instructions.insert(RewritePrompt::instruction(mode));
        const QString bare = RewritePrompt::rewriteInstructions(mode, QString());
        EXPECT_TRUE(bare.startsWith(utf8("Task: ") + RewritePrompt::instruction(mode))) << bare.toStdString();
        EXPECT_FALSE(bare.contains(utf8("Style:")));
        for (const char* blank : {"   ", " \n\t \r\n ", "\u3000\u00a0"}) {
            EXPECT_EQ(RewritePrompt::rewriteInstructions(mode, utf8(blank)), bare)
                << rewrite_mode::rawValue(mode);
        }
        // Only the ends are trimmed: inner blank lines and indentation are the user's.
        EXPECT_EQ(
            RewritePrompt::rewriteInstructions(mode, utf8("  Short sentences.\n\n  No emoji, ever.\t\n")),
            bare + utf8("\nStyle: Short sentences.\n\n  No emoji, ever."));
    }
    EXPECT_EQ(instructions.size(), 4) << "each style asks for its own wording";
}

TEST(RewritePromptInstructionsTest, ImprovePromptFencesPreferencesOrSaysThereAreNone) {
    const QString bare = RewritePrompt::rewriteInstructions(RewriteMode::improvePrompt, QString());
    EXPECT_TRUE(bare.endsWith(utf8("\n\nNo additional writing preferences are configured.")))
        << bare.toStdString();
    for (const char* blank : {" ", "\n\n", " \t\r\n"}) {
        EXPECT_EQ(RewritePrompt::rewriteInstructions(RewriteMode::improvePrompt, utf8(blank)), bare);
    }
    const QString head =
        bare.chopped(qsizetype(std::strlen("No additional writing preferences are configured.")));
    EXPECT_EQ(
        RewritePrompt::rewriteInstructions(RewriteMode::improvePrompt,
                                           utf8("\n Audience: engineers.\nBe brief. \n")),
        head +
            utf8("Apply these user-configured writing preferences only when they do not conflict with the "
                 "trusted task or preservation rules:\n<parlune_writing_preferences>\nAudience: engineers.\n"
                 "Be brief.\n</parlune_writing_preferences>"));
}

TEST(RewritePromptTest, PromptWrapsTheSelectionUntouched) {
    EXPECT_EQ(RewritePrompt::prompt(utf8("  two\nlines <b>&amp; ")),
              utf8("<parlune_selected_text>\n  two\nlines <b>&amp; \n</parlune_selected_text>"));
    EXPECT_EQ(RewritePrompt::prompt(QString()), utf8("<parlune_selected_text>\n\n</parlune_selected_text>"));
}

TEST(RewritePromptTest, ImprovedPromptOutputRoundTripsThroughGeneratedContent) {
    const ImprovedPromptOutput output{utf8("Task: x")};
    EXPECT_EQ(ImprovedPromptOutput::fromGeneratedContent(output.generatedContent())->rewrittenPrompt,
              utf8("Task: x"));
    EXPECT_FALSE(ImprovedPromptOutput::fromGeneratedContent({{utf8("prompt"), utf8("x")}}).has_value());
}

// Rounding up (1,489 bytes refused) and bytes of é and 日 are the budget tests'.
TEST(RewritePromptTest, EstimatedTokenCountRoundsBytesUp) {
    EXPECT_EQ(RewritePrompt::estimatedTokenCount(QString()), 1);
    EXPECT_EQ(RewritePrompt::estimatedTokenCount(utf8("abcd")), 2);
    EXPECT_EQ(RewritePrompt::estimatedTokenCount(utf8("😀")), 2); // 4 bytes, 2 UTF-16 units
}

using test::ScriptedLanguageModelFramework;

std::int64_t schemaCounts(const ScriptedLanguageModelFramework& model) {
    return std::count(model.counted.begin(), model.counted.end(), QStringLiteral("schema"));
}

// Budgeting counts at most; it never opens a session.
std::int64_t budgetFor(ScriptedLanguageModelFramework& model, const QString& text, RewriteMode mode,
                       std::optional<QString> instructions = std::nullopt) {
    const QString used = instructions ? *instructions : RewritePrompt::rewriteInstructions(mode, QString());
    const std::int64_t budget = test::runTask(RewritePrompt::responseTokenBudget(
        model, used, RewritePrompt::prompt(text), text, mode, std::stop_token{}));
    EXPECT_TRUE(model.openedWith.empty());
    return budget;
}

bool isTooLong(ScriptedLanguageModelFramework& model, const QString& text, RewriteMode mode,
               std::optional<QString> instructions = std::nullopt) {
    try {
        budgetFor(model, text, mode, instructions);
        return false;
    } catch (const LocalRewriteEngineError& error) {
        EXPECT_EQ(error.kind(), LocalRewriteEngineError::Kind::selectionTooLong);
        return true;
    }
}

TEST(ResponseTokenBudgetTest, ShortSelectionsGetTheFloor) {
    ScriptedLanguageModelFramework model;
    for (const char* text : {"a", "ab", "abc", "é", "€"}) {
        EXPECT_EQ(budgetFor(model, utf8(text), RewriteMode::makeConcise), 64) << text;
        EXPECT_EQ(budgetFor(model, utf8(text), RewriteMode::improvePrompt), 128) << text;
    }
    EXPECT_EQ(budgetFor(model, QString(48, QLatin1Char('x')), RewriteMode::casual), 64); // 16 × 2 + 32
    EXPECT_EQ(budgetFor(model, QString(51, QLatin1Char('x')), RewriteMode::casual), 66); // 17 × 2 + 32
}

// Style modes stop at 496 estimated tokens (1,488 bytes), "Improve prompt" at 330 (990 bytes);
// bytes count, not characters.
TEST(ResponseTokenBudgetTest, TheWantedTokensOfLongSelectionsAreRefusedAtEachModesLimit) {
    ScriptedLanguageModelFramework model;
    const QString x = QStringLiteral("x");
    EXPECT_EQ(budgetFor(model, x.repeated(1488), RewriteMode::professional), 1024);
    EXPECT_EQ(budgetFor(model, x.repeated(990), RewriteMode::improvePrompt), 1022);
    EXPECT_EQ(budgetFor(model, x.repeated(993), RewriteMode::casual), 694);
    EXPECT_EQ(budgetFor(model, QString(744, QChar(0x00e9)), RewriteMode::makeConcise), 1024);
    for (int bytes : {1489, 1491, 4000}) {
        EXPECT_TRUE(isTooLong(model, x.repeated(bytes), RewriteMode::improveClarity)) << bytes;
    }
    EXPECT_TRUE(isTooLong(model, x.repeated(991), RewriteMode::improvePrompt));
    EXPECT_TRUE(isTooLong(model, QString(745, QChar(0x00e9)), RewriteMode::makeConcise));
    EXPECT_TRUE(isTooLong(model, QString(500, QChar(0x65e5)), RewriteMode::makeConcise)); // 1,500 bytes
}

// Without a context size, instructions of n bytes and an empty prompt estimate ceil((n + 1) / 3)
// tokens against 4096, with "Improve prompt" keeping 128 tokens for its schema; nothing is counted.
TEST(ResponseTokenBudgetTest, WithoutContextSizeEstimatesAgainst4096) {
    ScriptedLanguageModelFramework model;
    const auto budgetWith = [&](qsizetype instructionBytes, RewriteMode mode) {
        return test::runTask(RewritePrompt::responseTokenBudget(
            model, QString(instructionBytes, QLatin1Char('i')), QString(), QStringLiteral("a"), mode, {}));
    };
    EXPECT_EQ(budgetWith(1984, RewriteMode::casual), 64);  // passes the 2048-byte quick check
    EXPECT_EQ(budgetWith(12095, RewriteMode::casual), 64); // 4032 + 64 = 4096
    EXPECT_THROW(budgetWith(12096, RewriteMode::casual), LocalRewriteEngineError);
    EXPECT_EQ(budgetWith(11519, RewriteMode::improvePrompt), 128);
    EXPECT_THROW(budgetWith(11520, RewriteMode::improvePrompt), LocalRewriteEngineError);
    EXPECT_TRUE(model.counted.empty());
}

TEST(ResponseTokenBudgetTest, WithContextSizeCountsExactlyOnlyBeyondHalfTheWindow) {
    ScriptedLanguageModelFramework model;
    model.context = 4000;
    const QString text = utf8("a");
    const auto budgetWith = [&](qsizetype instructionBytes, RewriteMode mode) {
        return test::runTask(RewritePrompt::responseTokenBudget(
            model, QString(instructionBytes, QLatin1Char('i')), QString(), text, mode, {}));
    };
    // quick = n + 64 ≤ 2000 needs no counting.
    EXPECT_EQ(budgetWith(1936, RewriteMode::casual), 64);
    EXPECT_TRUE(model.counted.empty());

    model.instructionTokens = 3000;
    model.promptTokens = 936;
    EXPECT_EQ(budgetWith(1937, RewriteMode::casual), 64); // 3000 + 936 + 64 = 4000
    EXPECT_EQ(model.counted.size(), 2u);
    EXPECT_EQ(schemaCounts(model), 0);
    model.promptTokens = 937;
    EXPECT_THROW(budgetWith(1937, RewriteMode::casual), LocalRewriteEngineError);

    // "Improve prompt" adds 512 bytes to the quick check and its schema to the exact count.
    model.counted.clear();
    EXPECT_EQ(budgetWith(1360, RewriteMode::improvePrompt), 128); // 1360 + 512 + 128 = 2000
    EXPECT_TRUE(model.counted.empty());
    model.instructionTokens = 3000;
    model.promptTokens = 800;
    model.schemaTokens = 72;
    EXPECT_EQ(budgetWith(1361, RewriteMode::improvePrompt), 128); // 3000 + 800 + 72 + 128 = 4000
    EXPECT_EQ(schemaCounts(model), 1);
    model.schemaTokens = 73;
    EXPECT_THROW(budgetWith(1361, RewriteMode::improvePrompt), LocalRewriteEngineError);
}

TEST(ResponseTokenBudgetTest, CountingErrorsPassThroughUnchanged) {
    ScriptedLanguageModelFramework model;
    model.context = 100;
    model.countingError = LanguageModelGenerationError::Kind::assetsUnavailable;
    try {
        budgetFor(model, utf8("hello"), RewriteMode::casual);
        FAIL() << "expected the counting error";
    } catch (const LanguageModelGenerationError& error) {
        EXPECT_EQ(error.kind(), LanguageModelGenerationError::Kind::assetsUnavailable);
    }
    // The wanted-token limit is checked before anything is counted.
    model.counted.clear();
    EXPECT_TRUE(isTooLong(model, QString(2000, QLatin1Char('x')), RewriteMode::casual));
    EXPECT_TRUE(model.counted.empty());
}

} // namespace
} // namespace parlune
