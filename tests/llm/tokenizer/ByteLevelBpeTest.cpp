#include "TinyVocabularies.h"

#include "llm/tokenizer/Tokenizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace parlune::llm {
namespace {

using test::byteLevelConfig;
using test::spell;
using Ids = std::vector<std::int32_t>;

std::int32_t id(const Tokenizer& tokenizer, std::string_view bytes) {
    const auto token = tokenizer.findToken(spell(bytes));
    EXPECT_TRUE(token) << "no token for " << bytes;
    return token.value_or(-1);
}

TEST(ByteLevelBpeTest, MergesApplyByRankNotByPositionAndEqualRanksGoLeftFirst) {
    const auto tokenizer = Tokenizer::fromConfig(byteLevelConfig({{"b", "c"}, {"a", "b"}, {"a", "a"}}));
    const Tokenizer& t = *tokenizer;
    EXPECT_EQ(t.encode("abc", false), (Ids{'a', id(t, "bc")}));
    EXPECT_EQ(t.encode("ab", false), (Ids{id(t, "ab")}));
    EXPECT_EQ(t.encode("aaa", false), (Ids{id(t, "aa"), 'a'}));
    EXPECT_EQ(t.encode("aaaa", false), (Ids{id(t, "aa"), id(t, "aa")}));
}

TEST(ByteLevelBpeTest, MergedSymbolsKeepMergingAndWordsNeverMergeAcrossPieces) {
    const auto tokenizer =
        Tokenizer::fromConfig(byteLevelConfig({{" ", "a"}, {"b", "c"}, {" a", "bc"}, {"c", " "}}));
    const Tokenizer& t = *tokenizer;
    EXPECT_EQ(t.encode(" abc abc", false), (Ids{id(t, " abc"), id(t, " abc")}));
    // "c " is a merge, but the pre-tokenizer puts the space in the next word.
    EXPECT_EQ(t.encode("c c", false), (Ids{'c', ' ', 'c'}));
}

TEST(ByteLevelBpeTest, WholeWordTokensWinForLlama3Only) {
    auto config = byteLevelConfig({{"a", "b"}}, {}, "llama-bpe");
    config.tokens.push_back(spell("abc"));
    config.tokenTypes.push_back(1);
    const auto llama = Tokenizer::fromConfig(config);
    EXPECT_EQ(llama->encode("abc", false), (Ids{id(*llama, "abc")}));
    config.pre = "gpt-2";
    const auto gpt2 = Tokenizer::fromConfig(config);
    EXPECT_EQ(gpt2->encode("abc", false), (Ids{id(*gpt2, "ab"), 'c'}));
}

TEST(ByteLevelBpeTest, SpecialTokensAreMatchedInsideTextOnlyWhenAsked) {
    const auto tokenizer =
        Tokenizer::fromConfig(byteLevelConfig({{"h", "i"}}, {"<|im_end|>", "<x>", "<x>y"}));
    const Tokenizer& t = *tokenizer;
    const std::int32_t end = *t.findToken("<|im_end|>");
    const std::int32_t xy = *t.findToken("<x>y");
    EXPECT_EQ(t.encode("hi<|im_end|>hi", true), (Ids{id(t, "hi"), end, id(t, "hi")}));
    EXPECT_EQ(t.encode("<|im_end|><|im_end|>", true), (Ids{end, end}));
    EXPECT_EQ(t.encode("<x>y", true), (Ids{xy})) << "the longest special text wins";
    const Ids plain = t.encode("hi<|im_end|>", false);
    EXPECT_EQ(std::count(plain.begin(), plain.end(), end), 0);
    EXPECT_EQ(t.decode(plain), "hi<|im_end|>");
    EXPECT_EQ(t.tokenBytes(end), "") << "control tokens stand for no text";
}

TEST(ByteLevelBpeTest, LiteralRangesKeepSpecialTextPlainWithoutChangingOtherTokens) {
    const auto tokenizer = Tokenizer::fromConfig(byteLevelConfig({{"h", "i"}}, {"<|im_end|>"}));
    const Tokenizer& t = *tokenizer;
    const std::int32_t end = *t.findToken("<|im_end|>");
    const std::string text = "h<|im_end|>i<|im_end|>";
    const std::vector<TextRange> user{{0, 12}};
    const Ids ids = t.encode(text, user);
    EXPECT_EQ(std::count(ids.begin(), ids.end(), end), 1);
    EXPECT_EQ(ids.back(), end);
    EXPECT_EQ(t.decode(ids), "h<|im_end|>i") << "the real end marker stands for no text";
    // Plain text across a range edge is one piece: "h" + "i" still merge.
    const std::vector<TextRange> edge{{1, 2}};
    EXPECT_EQ(t.encode("hi", edge), (Ids{id(t, "hi")}));
    // A special text reaching into a range is not a special token either.
    const std::vector<TextRange> tail{{5, 10}};
    const Ids straddling = t.encode("<|im_end|>", tail);
    EXPECT_EQ(std::count(straddling.begin(), straddling.end(), end), 0);
    const std::vector<TextRange> unsorted{{4, 6}, {0, 2}};
    EXPECT_THROW(t.encode("abcdefgh", unsorted), std::invalid_argument);
    const std::vector<TextRange> outside{{0, 9}};
    EXPECT_THROW(t.encode("abc", outside), std::invalid_argument);
}

TEST(ByteLevelBpeTest, EmptyAndMalformedInputRoundTripByteForByte) {
    const auto tokenizer = Tokenizer::fromConfig(byteLevelConfig({{"a", "b"}}, {"<s>"}));
    EXPECT_TRUE(tokenizer->encode("", false).empty());
    EXPECT_TRUE(tokenizer->encode("", true).empty());
    const std::string bad = "ab\xFF\xC3(\xE2\x82 \xED\xA0\x80\xF4\x90\x80\x80<s";
    const Ids ids = tokenizer->encode(bad, true);
    EXPECT_EQ(tokenizer->decode(ids), bad);
}

TEST(ByteLevelBpeTest, BytesTheVocabularyCannotSpellBecomeReplacementCharacters) {
    auto config = byteLevelConfig({});
    config.tokens[0xFF] = "unused";
    const auto tokenizer = Tokenizer::fromConfig(config);
    EXPECT_EQ(tokenizer->decode(tokenizer->encode("a\xFF", false)), "a\xEF\xBF\xBD");
}

TEST(ByteLevelBpeTest, SpecialIdsAndEndOfGeneration) {
    auto config = byteLevelConfig({}, {"<|endoftext|>", "<|im_end|>", "<|im_start|>"});
    config.eos = 256;
    config.bos = 256;
    const auto tokenizer = Tokenizer::fromConfig(config);
    EXPECT_EQ(tokenizer->eosToken(), 256);
    EXPECT_FALSE(tokenizer->addBosByDefault()) << "byte-level BPE adds BOS only when the file says so";
    EXPECT_TRUE(tokenizer->isEndOfGeneration(256));
    EXPECT_TRUE(tokenizer->isEndOfGeneration(257)) << "<|im_end|> ends a turn";
    EXPECT_FALSE(tokenizer->isEndOfGeneration(258));
    EXPECT_FALSE(tokenizer->isEndOfGeneration('a'));
    EXPECT_FALSE(tokenizer->isEndOfGeneration(-1));
    config.addBos = true;
    EXPECT_TRUE(Tokenizer::fromConfig(config)->addBosByDefault());
}

TEST(ByteLevelBpeTest, InconsistentConfigurationsAreRefusedWithAReason) {
    auto bad = byteLevelConfig({});
    bad.model = "wordpiece";
    EXPECT_THROW(Tokenizer::fromConfig(bad), TokenizerError);
    bad = byteLevelConfig({});
    bad.tokenTypes.pop_back();
    EXPECT_THROW(Tokenizer::fromConfig(bad), TokenizerError);
    bad = byteLevelConfig({});
    bad.eos = 256;
    EXPECT_THROW(Tokenizer::fromConfig(bad), TokenizerError);
    bad = byteLevelConfig({});
    bad.merges.push_back("nospace");
    EXPECT_THROW(Tokenizer::fromConfig(bad), TokenizerError);
    bad = byteLevelConfig({});
    bad.tokens[0xBD] = "unused"; // cannot spell U+FFFD, the stand-in for unspellable bytes
    EXPECT_THROW(Tokenizer::fromConfig(bad), TokenizerError);
    // An unused padding id past the end is tolerated.
    auto padded = byteLevelConfig({});
    padded.padding = 9999;
    EXPECT_FALSE(Tokenizer::fromConfig(padded)->paddingToken());
}

} // namespace
} // namespace parlune::llm
