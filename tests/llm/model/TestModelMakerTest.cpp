#include "TinyModel.h"

#include "llm/model/KvCache.h"
#include "llm/model/Transformer.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/tokenizer/ChatFormat.h"
#include "llm/tokenizer/Tokenizer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>

namespace parlune::llm {
namespace {

using testing::tinySpec;

TEST(TestModelMaker, SameSpecSameBytesOtherSeedOtherWeights) {
    const TestModelRecipe recipe = tinySpec(Architecture::qwen2, GgmlType::Q8_0);
    EXPECT_EQ(TestModelMaker::build(recipe).toBytes(), TestModelMaker::build(recipe).toBytes());
    TestModelRecipe other = recipe;
    other.seed = 2;
    EXPECT_NE(TestModelMaker::build(recipe).toBytes(), TestModelMaker::build(other).toBytes());
}

TEST(TestModelMaker, EveryWeightTypeLoadsAndRuns) {
    ThreadPool pool(2);
    for (const char* type : {"f32", "f16", "bf16", "q4_0", "q4_1", "q5_0", "q5_1", "q8_0", "q2_k", "q3_k",
                             "q4_k", "q5_k", "q6_k", "iq4_nl", "iq4_xs", "q4_k_m"}) {
        TestModelRecipe recipe = tinySpec(Architecture::llama);
        recipe.weights = *TestWeightScheme::parse(type);
        recipe.feedForwardSize = 512; // down-projection rows of two 256-blocks
        const auto model = testing::makeTinyModel(recipe);
        EXPECT_EQ(model->layer(0).down.type == GgmlType::Q8_0, recipe.weights.type == GgmlType::Q8_0) << type;
        Transformer transformer(model, pool);
        KvCache cache(model->config());
        std::vector<float> logits;
        const std::int32_t tokens[] = {5, 77, 130};
        transformer.forward(tokens, cache, logits);
        float largest = 0.0f;
        for (const float v : logits) {
            ASSERT_TRUE(std::isfinite(v)) << type;
            largest = std::max(largest, std::abs(v));
        }
        EXPECT_GT(largest, 0.05f) << type;
    }
}

TEST(TestModelMaker, BuiltInVocabularyTokenisesAndFormatsChat) {
    const auto file = GgufFile::fromBuffer(TestModelMaker::build(tinySpec(Architecture::qwen3)).toBytes());
    const auto tokenizer = Tokenizer::fromGguf(*file);
    const std::string text = "the weather in Zürich";
    EXPECT_EQ(tokenizer->decode(tokenizer->encode(text, false)), text);
    EXPECT_LT(tokenizer->encode(" the", false).size(), 4u); // merges apply
    const ChatFormat format = ChatFormat::fromTemplate(*file->getString("tokenizer.chat_template"));
    EXPECT_EQ(format.family(), ChatFamily::chatml);
    const auto prompt = tokenizer->encode(format.formatPrompt("sys", "hi"), true);
    EXPECT_EQ(prompt.front(), *tokenizer->findToken("<|im_start|>"));
    EXPECT_TRUE(tokenizer->isEndOfGeneration(*tokenizer->findToken("<|im_end|>")));
}

TEST(TestModelMaker, PaddedVocabularyGetsChatMLControlTokens) {
    TestModelRecipe recipe = tinySpec(Architecture::qwen2);
    recipe.vocabularySize = 400;
    const auto file = GgufFile::fromBuffer(TestModelMaker::build(recipe).toBytes());
    EXPECT_EQ(Model::fromFile(file)->config().vocabularySize, 400);
    EXPECT_EQ(Tokenizer::fromGguf(*file)->vocabularySize(), 400);
    recipe.vocabularySize = 100; // below the vocabulary's own size
    EXPECT_THROW(TestModelMaker::build(recipe), std::invalid_argument);
}

TEST(TestModelMaker, CopiesAVocabularyFile) {
    const std::filesystem::path vocab =
        std::filesystem::path(PARLUNE_LLM_FIXTURES) / "vocab/ggml-vocab-gpt-2.gguf";
    if (!std::filesystem::exists(vocab)) {
        GTEST_SKIP() << "shared engine fixtures not found at " << PARLUNE_LLM_FIXTURES;
    }
    TestModelRecipe recipe = tinySpec(Architecture::qwen2, GgmlType::Q8_0);
    recipe.vocabularyFile = vocab;
    recipe.vocabularySize = 50304; // padded like real checkpoints
    const auto file = GgufFile::fromBuffer(TestModelMaker::build(recipe).toBytes());
    const auto tokenizer = Tokenizer::fromGguf(*file);
    const auto original = Tokenizer::fromGguf(*GgufFile::open(vocab));
    EXPECT_EQ(tokenizer->vocabularySize(), 50304);
    EXPECT_EQ(tokenizer->encode("Hello world, again!", false),
              original->encode("Hello world, again!", false));
    EXPECT_EQ(*tokenizer->findToken("<|im_start|>"), original->vocabularySize()); // first padding slot
}

} // namespace
} // namespace parlune::llm
