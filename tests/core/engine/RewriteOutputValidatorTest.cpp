#include "core/engine/RewriteOutputValidator.h"
#include "core/engine/LocalRewriteEngineError.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

using Kind = LocalRewriteEngineError::Kind;

QString utf8(const char* text) {
    return QString::fromUtf8(text);
}

QString cleaned(const char* output, const char* source) {
    return RewriteOutputValidator::cleanedRewrite(utf8(output), utf8(source));
}

std::optional<Kind> failureOf(const char* output, const char* source = "Write a memo") {
    try {
        RewriteOutputValidator::validatedImprovedPrompt(utf8(output), utf8(source));
        return std::nullopt;
    } catch (const LocalRewriteEngineError& error) {
        return error.kind();
    }
}

QString validated(const char* output, const char* source = "Write a memo") {
    return RewriteOutputValidator::validatedImprovedPrompt(utf8(output), utf8(source));
}

TEST(CleanedRewriteTest, StripsEchoedWrapperTags) {
    EXPECT_EQ(cleaned("\n<rewritten_text>\n\n  Better text.\n\n</rewritten_text>\n", "Bad text."),
              utf8("Better text."));
    EXPECT_EQ(cleaned("<reworded_text>Better</reworded_text>", "bad"), utf8("Better"));
    // The opening tag alone goes; a closing tag without an opening one stays.
    EXPECT_EQ(cleaned("<rewritten_text> Better", "bad"), utf8("Better"));
    EXPECT_EQ(cleaned("Better </rewritten_text>", "bad"), utf8("Better </rewritten_text>"));
    // Only the first pair that opens the answer is removed.
    EXPECT_EQ(cleaned("<reworded_text><rewritten_text>x</rewritten_text></reworded_text>", "s"),
              utf8("<rewritten_text>x</rewritten_text>"));
    EXPECT_EQ(cleaned("<rewritten_text></rewritten_text>", "s"), QString());
}

TEST(CleanedRewriteTest, KeepsTagsTheUserWroteThemselves) {
    EXPECT_EQ(cleaned("  <rewritten_text>x</rewritten_text>\n", "\n <rewritten_text>y</rewritten_text>"),
              utf8("<rewritten_text>x</rewritten_text>"));
    // A source starting with the other tag does not protect this one.
    EXPECT_EQ(cleaned("<rewritten_text>x</rewritten_text>", "<reworded_text>y"), utf8("x"));
    EXPECT_EQ(cleaned(" \t plain answer \u2003\n", "source"), utf8("plain answer"));
}

TEST(ImprovedPromptLabelIndexTest, MapsLabelsInAnyCaseAndSpacing) {
    EXPECT_EQ(RewriteOutputValidator::improvedPromptLabelIndex(utf8("Task")), 0);
    EXPECT_EQ(RewriteOutputValidator::improvedPromptLabelIndex(utf8("AUDIENCE \n and\tFocus")), 1);
    EXPECT_EQ(RewriteOutputValidator::improvedPromptLabelIndex(utf8("requirements")), 2);
    EXPECT_EQ(RewriteOutputValidator::improvedPromptLabelIndex(utf8("Output  Format")), 3);
    EXPECT_EQ(RewriteOutputValidator::improvedPromptLabelIndex(utf8("Outputformat")), std::nullopt);
    EXPECT_EQ(RewriteOutputValidator::improvedPromptLabelIndex(utf8("Goal")), std::nullopt);
}

const char* const fourLines =
    "Task: Draft a memo.\nAudience and focus: Staff; the move.\nRequirements: Keep dates.\n"
    "Output format: Three short paragraphs.";

TEST(ValidatedImprovedPromptTest, PlainAnswerPassesUnchanged) {
    EXPECT_EQ(validated(fourLines), utf8(fourLines));
}

TEST(ValidatedImprovedPromptTest, RebuildsMarkdownIntoFourPlainLines) {
    EXPECT_EQ(
        validated(
            "<rewritten_text>\n- **Task:** Draft a memo.\n- **Audience and focus:** Staff;\n  the move.\n"
            "- **Requirements**: Keep\n\ndates.\n- __Output format:__ Three short paragraphs.\n"
            "</rewritten_text>"),
        utf8(fourLines));
    EXPECT_EQ(
        validated(
            "## Task: Draft a memo.\n> 2) audience AND focus: Staff; the move.\n\t3. REQUIREMENTS : Keep "
            "dates.\n### Output\nformat: Three short paragraphs."),
        utf8(fourLines));
    // Labels may also follow white space inside one line.
    EXPECT_EQ(
        validated("Task: Draft a memo. Audience and focus: Staff; the move. Requirements: Keep dates. Output "
                  "format: Three short paragraphs."),
        utf8(fourLines));
}

TEST(ValidatedImprovedPromptTest, StructuralDefectsFailAsGenerationFailed) {
    // "Task:" repeated after white space inside a sentence makes five matches.
    EXPECT_EQ(failureOf("Task: Do the Task: now.\nAudience and focus: a\nRequirements: b\nOutput format: c"),
              Kind::generationFailed);
    EXPECT_EQ(failureOf("Audience and focus: a\nTask: t\nRequirements: b\nOutput format: c"),
              Kind::generationFailed);
    EXPECT_EQ(failureOf("Task: t\nAudience and focus: a\nRequirements: b"), Kind::generationFailed);
    EXPECT_EQ(failureOf("Task: t\nTask: a\nRequirements: b\nOutput format: c"), Kind::generationFailed);
    EXPECT_EQ(failureOf(""), Kind::generationFailed);
    EXPECT_EQ(failureOf("Here is your prompt."), Kind::generationFailed);
    // A label glued to a word is not a label: only three remain.
    EXPECT_EQ(failureOf("Task: t\nAudience and focus: a\nRequirements: b\nxOutput format: c"),
              Kind::generationFailed);
}

TEST(ValidatedImprovedPromptTest, EmptySectionFailsAsEmptyRewrite) {
    EXPECT_EQ(failureOf("Task: t\nAudience and focus: a\nRequirements:\n  \nOutput format: c"),
              Kind::emptyRewrite);
    EXPECT_EQ(failureOf("Task: t\nAudience and focus: a\nRequirements: b\nOutput format:  "),
              Kind::emptyRewrite);
    // Structure is judged before content.
    EXPECT_EQ(failureOf("Task:\nRequirements: b\nAudience and focus: a\nOutput format: c"),
              Kind::generationFailed);
}

TEST(ValidatedImprovedPromptTest, UnicodeLineBreaksStartLines) {
    EXPECT_EQ(
        validated(
            "Task: Draft a memo.\u2028Audience and focus: Staff; the move.\u2029Requirements: Keep dates.\r\n"
            "Output format: Three short paragraphs."),
        utf8(fourLines));
}

} // namespace
} // namespace parlune
