#include "core/engine/DeterministicTextNormalizer.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

QString utf8(const char* text) {
    return QString::fromUtf8(text);
}

std::optional<QString> needed(const char* text) {
    return DeterministicTextNormalizer::rewriteIfNeeded(utf8(text));
}
std::optional<QString> trivial(const char* text) {
    return DeterministicTextNormalizer::rewriteIfTriviallySafe(utf8(text));
}

TEST(RewriteIfNeededTest, CollapsesInnerSpaceRunsOnly) {
    EXPECT_EQ(needed("Hello  world"), utf8("Hello world"));
    EXPECT_EQ(needed("a \t \tb\tc"), utf8("a b\tc"));
    EXPECT_EQ(needed("  indented  text"), utf8("  indented text"));     // indentation kept
    EXPECT_EQ(needed("line  one   \nnext"), utf8("line one   \nnext")); // trailing spaces kept
    EXPECT_EQ(needed("a\n\nb"), std::nullopt); // line breaks are not spaces to collapse
}

TEST(RewriteIfNeededTest, RemovesSpaceBeforePunctuationOnlyInAscii) {
    EXPECT_EQ(needed("Done ."), utf8("Done."));
    EXPECT_EQ(needed("one , two\t, three ."), utf8("one, two, three."));
    EXPECT_EQ(needed("Voilà ."), std::nullopt);
    EXPECT_EQ(needed("Voilà  très bien ."), utf8("Voilà très bien ."));
    EXPECT_EQ(needed("Hello ,  world ."), utf8("Hello, world."));
}

TEST(RewriteIfNeededTest, CleanTextGivesNothing) {
    EXPECT_EQ(needed("Already clean."), std::nullopt);
    EXPECT_EQ(needed(""), std::nullopt);
    EXPECT_EQ(needed("Caf\u00e9 au lait"), std::nullopt);
}

TEST(RewriteIfNeededTest, ComposesDecomposedText) {
    EXPECT_EQ(needed("Cafe\u0301"), utf8("Caf\u00e9"));
    EXPECT_EQ(needed("Cafe\u0301  noir ."), utf8("Caf\u00e9 noir ."));
}

TEST(RewriteIfTriviallySafeTest, AnswersOnlySpacingOrCompositionFixesOfShortFragments) {
    EXPECT_EQ(trivial("Hello world"), std::nullopt); // clean: the model decides
    EXPECT_EQ(trivial("Hello  world"), utf8("Hello world"));
    EXPECT_EQ(trivial("Hello  there  world"), std::nullopt); // three words
    EXPECT_EQ(trivial("Done ."), utf8("Done."));
    EXPECT_EQ(trivial("it's  ok"), std::nullopt); // "it", "s", "ok": three runs
    EXPECT_EQ(trivial("v2  ready"), utf8("v2 ready"));
}

TEST(RewriteIfTriviallySafeTest, ComposedNonAsciiAlwaysGoesToTheModel) {
    EXPECT_EQ(trivial("Caf\u00e9  noir"), std::nullopt);
    EXPECT_EQ(trivial("Caf\u00e9"), std::nullopt);
}

TEST(RewriteIfTriviallySafeTest, DecomposedTextIsAnsweredByItsComposedForm) {
    EXPECT_EQ(trivial("Cafe\u0301"), utf8("Caf\u00e9"));
    EXPECT_EQ(trivial("\u1100\u1161"), utf8("\uac00"));
    // The composition is the answer; spacing is then left as it was.
    EXPECT_EQ(trivial("Cafe\u0301  noir"), utf8("Caf\u00e9  noir"));
    EXPECT_EQ(trivial("Cafe\u0301 noir et blanc"), std::nullopt);
}

TEST(RewriteIfTriviallySafeTest, CountsGraphemeClustersAgainstTheLimit) {
    // 64 characters once the double space is collapsed is still trivial; 65 is not.
    const QString sixtyFour =
        QString(31, QLatin1Char('a')) + QStringLiteral("  ") + QString(32, QLatin1Char('b'));
    EXPECT_EQ(DeterministicTextNormalizer::rewriteIfTriviallySafe(sixtyFour)->size(), 64);
    const QString sixtyFive =
        QString(32, QLatin1Char('a')) + QStringLiteral("  ") + QString(32, QLatin1Char('b'));
    EXPECT_EQ(DeterministicTextNormalizer::rewriteIfTriviallySafe(sixtyFive), std::nullopt);

    // 64 decomposed letters are 128 UTF-16 units but 64 characters.
    QString decomposed;
    for (int i = 0; i < 64; ++i) {
        decomposed += utf8("e\u0301");
    }
    EXPECT_EQ(DeterministicTextNormalizer::rewriteIfTriviallySafe(decomposed), QString(64, QChar(0x00e9)));
    // A flag is one character of two code points (four UTF-16 units).
    QString flags;
    for (int i = 0; i < 63; ++i) {
        flags += utf8("\U0001F1EB\U0001F1F7");
    }
    EXPECT_TRUE(DeterministicTextNormalizer::rewriteIfTriviallySafe(flags + utf8("e\u0301")).has_value());
    flags += utf8("\U0001F1EB\U0001F1F7");
    EXPECT_EQ(DeterministicTextNormalizer::rewriteIfTriviallySafe(flags + utf8("e\u0301")), std::nullopt);
}

} // namespace
} // namespace parlune
