#include "core/engine/DeterministicTextNormalizer.h"
#include "core/engine/GraphemeCount.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/engine/RewriteOutputValidator.h"

#include <QRegularExpression>

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace parlune {
namespace {

// Pieces that exercise every branch: spacing, punctuation, composition, surrogates, line breaks of
// every kind, wrapper tags and the Markdown shapes of the four labels.
const std::vector<QString>& pieces() {
    static const std::vector<QString> all = [] {
        std::vector<QString> list;
        for (const char* piece : {"a",
                                  "Zq",
                                  "word",
                                  "7",
                                  "42",
                                  " ",
                                  " ",
                                  "  ",
                                  "\t",
                                  "\n",
                                  "\r\n",
                                  "\r",
                                  ".",
                                  ",",
                                  " .",
                                  "\t,",
                                  "é",
                                  "e\u0301",
                                  "\u1100\u1161",
                                  "\u0301",
                                  "日本",
                                  "😀",
                                  "\U0001F1EB\U0001F1F7",
                                  "\u00a0",
                                  "\u2028",
                                  "\u2029",
                                  "\u3000",
                                  "\u0085",
                                  "\f",
                                  "\v",
                                  "*",
                                  "**",
                                  "__",
                                  "#",
                                  "## ",
                                  "> ",
                                  "- ",
                                  "1. ",
                                  "2) ",
                                  ":",
                                  "Task:",
                                  "task",
                                  "Audience and focus:",
                                  "AUDIENCE\nAND  focus",
                                  "Requirements",
                                  "**Requirements**:",
                                  "Output format:",
                                  "Output\tformat",
                                  "<rewritten_text>",
                                  "</rewritten_text>",
                                  "<reworded_text>",
                                  "</reworded_text>",
                                  "\xef\xbf\xbd"}) {
            list.push_back(QString::fromUtf8(piece));
        }
        list.push_back(QString(QChar(0xd800))); // a lone surrogate, as broken input may carry
        return list;
    }();
    return all;
}

QString randomText(std::mt19937& random, int maxPieces) {
    std::uniform_int_distribution<int> count(0, maxPieces);
    std::uniform_int_distribution<std::size_t> pick(0, pieces().size() - 1);
    QString text;
    for (int i = count(random); i > 0; --i) {
        text += pieces()[pick(random)];
    }
    return text;
}

// Four well-formed sections in a random dress, with random content.
QString randomImprovedPromptAnswer(std::mt19937& random) {
    static const char* const labels[] = {"Task", "Audience and focus", "Requirements", "Output format"};
    static const char* const before[] = {"", "- ", "* ", "1. ", "## ", "> ", "  ", "\t+ "};
    static const char* const wrap[] = {"", "**", "__"};
    std::uniform_int_distribution<int> choice(0, 7);
    QString answer;
    for (int i = 0; i < 4; ++i) {
        const QString emphasis = QString::fromUtf8(wrap[choice(random) % 3]);
        answer += QString::fromUtf8(before[choice(random)]) + emphasis + QString::fromUtf8(labels[i]) +
                  (choice(random) % 2 ? emphasis + QStringLiteral(":") : QStringLiteral(":") + emphasis) +
                  QStringLiteral(" ") + randomText(random, 6) + QStringLiteral("\n");
    }
    return answer;
}

bool hasSpaceOutsideTabLineFeedReturn(const QString& text) {
    for (QChar unit : text) {
        if (unit.isSpace() && unit != QLatin1Char(' ') && unit != QLatin1Char('\t') &&
            unit != QLatin1Char('\n') && unit != QLatin1Char('\r')) {
            return true;
        }
    }
    return false;
}

TEST(NormalizationFuzzTest, NormalizerResultsAreStable) {
    std::mt19937 random(20240611);
    const QRegularExpression wordRun(QStringLiteral("[\\p{L}\\p{N}]+"),
                                     QRegularExpression::UseUnicodePropertiesOption);
    int rewritten = 0;
    int trivial = 0;
    for (int i = 0; i < 4000; ++i) {
        const QString text = randomText(random, 12);

        if (std::optional<QString> once = DeterministicTextNormalizer::rewriteIfNeeded(text)) {
            ++rewritten;
            EXPECT_NE(*once, text);
            EXPECT_EQ(DeterministicTextNormalizer::rewriteIfNeeded(*once), std::nullopt) << i;
        }

        if (std::optional<QString> answer = DeterministicTextNormalizer::rewriteIfTriviallySafe(text)) {
            ++trivial;
            EXPECT_EQ(*answer, answer->normalized(QString::NormalizationForm_C)) << i;
            EXPECT_LE(graphemeClusterCount(*answer), 64) << i;
            int words = 0;
            for (auto runs = wordRun.globalMatch(*answer); runs.hasNext(); runs.next()) {
                ++words;
            }
            EXPECT_LE(words, 2) << i;
            // Asking again never produces a different answer.
            const std::optional<QString> again = DeterministicTextNormalizer::rewriteIfTriviallySafe(*answer);
            EXPECT_TRUE(!again || *again == *answer) << i;
        }
    }
    // The generator must actually reach both answers, or the test proves nothing.
    EXPECT_GT(rewritten, 500);
    EXPECT_GT(trivial, 50);
}

TEST(NormalizationFuzzTest, OutputValidationNeverCrashesAndRebuildsStably) {
    std::mt19937 random(777);
    int valid = 0;
    for (int i = 0; i < 4000; ++i) {
        const QString source = randomText(random, 4);
        const QString output = i % 2 ? randomText(random, 24) : randomImprovedPromptAnswer(random);

        const QString cleaned = RewriteOutputValidator::cleanedRewrite(output, source);
        EXPECT_EQ(cleaned, cleaned.trimmed()) << i;

        QString rebuilt;
        try {
            rebuilt = RewriteOutputValidator::validatedImprovedPrompt(output, source);
        } catch (const LocalRewriteEngineError& error) {
            EXPECT_TRUE(error.kind() == LocalRewriteEngineError::Kind::generationFailed ||
                        error.kind() == LocalRewriteEngineError::Kind::emptyRewrite)
                << i;
            continue;
        }
        ++valid;
        const QStringList lines = rebuilt.split(QLatin1Char('\n'));
        ASSERT_EQ(lines.size(), 4) << i;
        EXPECT_TRUE(lines[0].startsWith(QStringLiteral("Task: ")));
        EXPECT_TRUE(lines[1].startsWith(QStringLiteral("Audience and focus: ")));
        EXPECT_TRUE(lines[2].startsWith(QStringLiteral("Requirements: ")));
        EXPECT_TRUE(lines[3].startsWith(QStringLiteral("Output format: ")));
        for (const QString& line : lines) {
            EXPECT_EQ(line, line.simplified()) << i;
        }
        // The rebuilt answer is a fixed point, with two exceptions the label syntax forces: collapsing
        // exotic spaces can put a word in label position, and emphasis that opens a section reads as
        // the label's closing emphasis the second time.
        bool sectionOpensWithEmphasis = false;
        for (const QString& line : lines) {
            const QString content = line.sliced(line.indexOf(QLatin1Char(':')) + 2);
            sectionOpensWithEmphasis |=
                content.startsWith(QStringLiteral("**")) || content.startsWith(QStringLiteral("__"));
        }
        if (!hasSpaceOutsideTabLineFeedReturn(output) && !sectionOpensWithEmphasis) {
            EXPECT_EQ(RewriteOutputValidator::validatedImprovedPrompt(rebuilt, source), rebuilt) << i;
        }
    }
    EXPECT_GT(valid, 200);
}

} // namespace
} // namespace parlune
