#include "TinyVocabularies.h"

#include "llm/tokenizer/Tokenizer.h"

#include <gtest/gtest.h>

namespace parlune::llm {
namespace {

using test::sentencePieceConfig;
using Ids = std::vector<std::int32_t>;

constexpr std::int32_t byteToken(unsigned char b) {
    return 3 + b;
}

class SentencePieceBpeTest : public ::testing::Test {
protected:
    // ids 259.. in this order
    std::vector<std::pair<std::string, float>> pieces{
        {"▁", -1.0f},    // 259
        {"a", -2.0f},    // 260
        {"b", -2.0f},    // 261
        {"c", -2.0f},    // 262
        {"ab", -5.0f},   // 263
        {"bc", -3.0f},   // 264
        {"▁a", -4.0f},   // 265
        {"▁abc", -6.0f}, // 266
        {"é", -2.0f},    // 267
    };
};

TEST_F(SentencePieceBpeTest, HigherScoringPairsMergeFirst) {
    const auto t = Tokenizer::fromConfig(sentencePieceConfig(pieces));
    // "bc" (-3) beats "ab" (-5), then ▁a + bc = ▁abc.
    EXPECT_EQ(t->encode("abc", false), (Ids{266}));
    EXPECT_EQ(t->encode("ab", false), (Ids{265, 261}));
    EXPECT_EQ(t->decode(t->encode("abc ab", false)), "abc ab");
}

TEST_F(SentencePieceBpeTest, CharactersWithoutPiecesFallBackToBytes) {
    const auto t = Tokenizer::fromConfig(sentencePieceConfig(pieces));
    EXPECT_EQ(t->encode("\xC3\xA9\xC3\xB1", false), (Ids{259, 267, byteToken(0xC3), byteToken(0xB1)}));
    EXPECT_EQ(t->tokenBytes(byteToken(0xB1)), "\xB1");
    EXPECT_EQ(t->tokenBytes(265), " a");
    const std::string bad = "a\xFF\xE2\x82";
    EXPECT_EQ(t->decode(t->encode(bad, false)), bad);
}

TEST_F(SentencePieceBpeTest, SpacePrefixFollowsTheMetadataAndSpecialTokens) {
    auto config = sentencePieceConfig(pieces, {"<|end|>"});
    const auto t = Tokenizer::fromConfig(config);
    const std::int32_t end = *t->findToken("<|end|>");
    EXPECT_TRUE(t->encode("", false).empty());
    EXPECT_EQ(t->encode(" ", false), (Ids{259, 259}));
    EXPECT_EQ(t->encode("a<|end|>a", true), (Ids{265, end, 265}));
    EXPECT_TRUE(t->addBosByDefault());
    config.addSpacePrefix = false;
    const auto bare = Tokenizer::fromConfig(config);
    EXPECT_EQ(bare->encode("a", false), (Ids{260}));
    EXPECT_EQ(bare->decode(bare->encode(" a", false)), " a");
}

TEST_F(SentencePieceBpeTest, ControlTextInUserInputIsNeverMergedIntoAControlToken) {
    pieces.push_back({"<", -1.0f});
    pieces.push_back({"s>", -1.0f});
    pieces.push_back({"<s", -1.0f});
    const auto t = Tokenizer::fromConfig(sentencePieceConfig(pieces));
    const Ids ids = t->encode("<s>", false);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), 1), 0);
    EXPECT_EQ(t->decode(ids), "<s>");
}

TEST_F(SentencePieceBpeTest, WithoutByteTokensUnknownCharactersBecomeUnknown) {
    auto config = sentencePieceConfig(pieces);
    for (int b = 0; b < 256; ++b)
        config.tokens[static_cast<std::size_t>(byteToken(static_cast<unsigned char>(b)))] =
            "x" + std::to_string(b);
    const auto t = Tokenizer::fromConfig(config);
    EXPECT_EQ(t->encode("\xC3\xB1", false), (Ids{259, 0, 0}));
}

} // namespace
} // namespace parlune::llm
