#include "TinyVocabularies.h"

#include "llm/tokenizer/TokenDecoder.h"
#include "llm/tokenizer/Tokenizer.h"
#include "llm/tokenizer/Utf8.h"

#include <gtest/gtest.h>

namespace parlune::llm {
namespace {

const std::string kReplacement = "\xEF\xBF\xBD";

class TokenDecoderTest : public ::testing::Test {
protected:
    // Token ids 0-255 are single bytes.
    std::unique_ptr<Tokenizer> tokenizer =
        Tokenizer::fromConfig(test::byteLevelConfig({{"\xA9", "\xC3"}}, {"<|im_end|>"}));
    TokenDecoder decoder{*tokenizer};
};

TEST_F(TokenDecoderTest, HoldsBackACharacterUntilItsLastByteArrives) {
    EXPECT_EQ(decoder.push('h'), "h");
    EXPECT_EQ(decoder.push(0xF0), "");
    EXPECT_EQ(decoder.push(0x9F), "");
    EXPECT_EQ(decoder.push(0xA6), "");
    EXPECT_EQ(decoder.push(0x99), "\xF0\x9F\xA6\x99");
    EXPECT_EQ(decoder.flush(), "");
}

TEST_F(TokenDecoderTest, ATokenMayFinishOneCharacterAndStartTheNext) {
    const std::int32_t tail = *tokenizer->findToken(test::spell("\xA9\xC3"));
    EXPECT_EQ(decoder.push(0xC3), "");
    EXPECT_EQ(decoder.push(tail), "\xC3\xA9");
    EXPECT_EQ(decoder.push(0xA9), "\xC3\xA9");
}

TEST_F(TokenDecoderTest, BytesThatCanNeverFormACharacterComeOutAsReplacements) {
    EXPECT_EQ(decoder.push(0xFF), kReplacement);
    EXPECT_EQ(decoder.push(0xE2), "");
    EXPECT_EQ(decoder.push('a'), kReplacement + "a");
    EXPECT_EQ(decoder.push(0xED), "");
    EXPECT_EQ(decoder.push(0xA0), kReplacement + kReplacement) << "a surrogate is not a character";
}

TEST_F(TokenDecoderTest, FlushEmitsTheUnfinishedRestAndEmptiesTheDecoder) {
    EXPECT_EQ(decoder.push(0xF0), "");
    EXPECT_EQ(decoder.push(0x9F), "");
    EXPECT_EQ(decoder.flush(), kReplacement + kReplacement);
    EXPECT_EQ(decoder.flush(), "");
    EXPECT_EQ(decoder.push(*tokenizer->findToken("<|im_end|>")), "");
    EXPECT_EQ(decoder.push(-5), "") << "an id outside the vocabulary stands for nothing";
}

TEST(Utf8Test, IncompleteSuffixRespectsSecondByteLimits) {
    EXPECT_EQ(incompleteUtf8Suffix("a\xE2\x82"), 2u);
    EXPECT_EQ(incompleteUtf8Suffix("\xF0"), 1u);
    EXPECT_EQ(incompleteUtf8Suffix("\xE0\x80"), 0u) << "overlong";
    EXPECT_EQ(incompleteUtf8Suffix("\xF4\x90"), 0u) << "beyond U+10FFFF";
    EXPECT_EQ(incompleteUtf8Suffix("\xC3\xA9"), 0u);
    EXPECT_EQ(incompleteUtf8Suffix(""), 0u);
    EXPECT_FALSE(decodeUtf8("\xC0\xAF", 0).valid);
    EXPECT_EQ(decodeUtf8("\xF0\x9F\xA6\x99", 0).codePoint, 0x1F999u);
}

} // namespace
} // namespace parlune::llm
