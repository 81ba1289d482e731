#include "llm/tokenizer/PreTokenizer.h"
#include "llm/tokenizer/CharClass.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace parlune::llm {
namespace {

std::vector<std::string> split(PreTokenizerKind kind, std::string_view text) {
    std::vector<std::string_view> views;
    PreTokenizer(kind).split(text, views);
    std::string joined;
    for (const auto view : views)
        joined += view;
    EXPECT_EQ(joined, text) << "pieces must cover the text exactly";
    return {views.begin(), views.end()};
}

using Pieces = std::vector<std::string>;

TEST(CharClassTest, ClassifiesLettersNumbersAndSpacesAcrossScripts) {
    EXPECT_EQ(charClass(U'a'), CharClass::letter);
    EXPECT_EQ(charClass(U'Ä'), CharClass::letter);
    EXPECT_EQ(charClass(U'ж'), CharClass::letter);
    EXPECT_EQ(charClass(U'我'), CharClass::letter);
    EXPECT_EQ(charClass(U'ក'), CharClass::letter);
    EXPECT_EQ(charClass(U'٣'), CharClass::number); // Arabic-Indic digit
    EXPECT_EQ(charClass(U'Ⅻ'), CharClass::number); // letter-like number (Nl)
    EXPECT_EQ(charClass(U'½'), CharClass::number); // No
    EXPECT_EQ(charClass(U'\u3000'), CharClass::whitespace);
    EXPECT_EQ(charClass(U'\u00A0'), CharClass::whitespace);
    EXPECT_EQ(charClass(U'\u0301'), CharClass::other); // combining mark
    EXPECT_EQ(charClass(U'!'), CharClass::other);
    EXPECT_EQ(charClass(U'\U0001F999'), CharClass::other);
    EXPECT_EQ(charClass(0x10FFFF), CharClass::other);
}

TEST(PreTokenizerTest, Gpt2SplitsWordsWithTheirLeadingSpaceAndKeepsTheLastSpaceForTheNextWord) {
    EXPECT_EQ(split(PreTokenizerKind::gpt2, "Hello world"), (Pieces{"Hello", " world"}));
    EXPECT_EQ(split(PreTokenizerKind::gpt2, "   Hello"), (Pieces{"  ", " Hello"}));
    EXPECT_EQ(split(PreTokenizerKind::gpt2, "a  \n\tb "), (Pieces{"a", "  \n", "\t", "b", " "}));
    EXPECT_EQ(split(PreTokenizerKind::gpt2, " 123abc!!?"), (Pieces{" 123", "abc", "!!?"}));
    EXPECT_EQ(split(PreTokenizerKind::gpt2, "\n ="), (Pieces{"\n", " ="}));
}

TEST(PreTokenizerTest, ContractionsAreCaseSensitiveOnlyForGpt2) {
    EXPECT_EQ(split(PreTokenizerKind::gpt2, "we'll I'M"), (Pieces{"we", "'ll", " I", "'", "M"}));
    EXPECT_EQ(split(PreTokenizerKind::llama3, "we'll I'M"), (Pieces{"we", "'ll", " I", "'M"}));
    EXPECT_EQ(split(PreTokenizerKind::gpt2, "' era"), (Pieces{"'", " era"}));
}

TEST(PreTokenizerTest, DigitGroupingDiffersPerFamily) {
    EXPECT_EQ(split(PreTokenizerKind::gpt2, "1234567"), (Pieces{"1234567"}));
    EXPECT_EQ(split(PreTokenizerKind::llama3, "1234567"), (Pieces{"123", "456", "7"}));
    EXPECT_EQ(split(PreTokenizerKind::qwen2, "123"), (Pieces{"1", "2", "3"}));
    EXPECT_EQ(split(PreTokenizerKind::starcoder, "x 12y"), (Pieces{"x", " ", "1", "2", "y"}));
    // Between digits the gpt2 rules run as if the text ended at the digit.
    EXPECT_EQ(split(PreTokenizerKind::starcoder, "a  1"), (Pieces{"a", "  ", "1"}));
}

TEST(PreTokenizerTest, Llama3AttachesOnePunctuationCharacterToAWordAndGroupsLineBreaks) {
    EXPECT_EQ(split(PreTokenizerKind::llama3, "(hello) \"quoted\""),
              (Pieces{"(hello", ")", " \"", "quoted", "\""}));
    EXPECT_EQ(split(PreTokenizerKind::llama3, "end.\n\nNext"), (Pieces{"end", ".\n\n", "Next"}));
    EXPECT_EQ(split(PreTokenizerKind::llama3, "a \n \n  b"), (Pieces{"a", " \n \n", " ", " b"}));
    EXPECT_EQ(split(PreTokenizerKind::llama3, "x 42"), (Pieces{"x", " ", "42"}));
    EXPECT_EQ(split(PreTokenizerKind::llama3, "\nword"), (Pieces{"\n", "word"}));
}

TEST(PreTokenizerTest, MalformedBytesStayInThePiecesAsPunctuation) {
    const std::string text = "ab\xFF\xC3 c\xE2\x82";
    EXPECT_EQ(split(PreTokenizerKind::gpt2, text), (Pieces{"ab", "\xFF\xC3", " c", "\xE2\x82"}));
    EXPECT_EQ(split(PreTokenizerKind::qwen2, text), (Pieces{"ab", "\xFF\xC3", " c", "\xE2\x82"}));
}

TEST(PreTokenizerTest, EmptyTextHasNoPiecesAndUnknownNamesUseGpt2Rules) {
    EXPECT_TRUE(split(PreTokenizerKind::llama3, "").empty());
    EXPECT_EQ(PreTokenizer::kindForName("smollm"), PreTokenizerKind::starcoder);
    EXPECT_EQ(PreTokenizer::kindForName("llama-bpe"), PreTokenizerKind::llama3);
    EXPECT_EQ(PreTokenizer::kindForName("something-new"), PreTokenizerKind::gpt2);
}

} // namespace
} // namespace parlune::llm
