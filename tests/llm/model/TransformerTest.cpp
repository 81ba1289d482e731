#include "TinyModel.h"

#include "llm/model/KvCache.h"
#include "llm/model/ModelError.h"
#include "llm/model/Transformer.h"
#include "llm/parallel/ThreadPool.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <numeric>
#include <stdexcept>
#include <vector>

namespace parlune::llm {
namespace {

using testing::makeTinyModel;
using testing::maxAbsDifference;
using testing::tinySpec;

std::vector<std::int32_t> sequence(std::size_t length, std::int32_t vocabulary) {
    std::vector<std::int32_t> tokens(length);
    for (std::size_t i = 0; i < length; ++i) {
        tokens[i] = static_cast<std::int32_t>((i * 7919 + 13) % static_cast<std::size_t>(vocabulary));
    }
    return tokens;
}

class TransformerTest : public ::testing::TestWithParam<std::tuple<Architecture, GgmlType>> {
protected:
    std::shared_ptr<const Model> model =
        makeTinyModel(tinySpec(std::get<0>(GetParam()), std::get<1>(GetParam())));
    std::int32_t vocabulary = static_cast<std::int32_t>(model->config().vocabularySize);
};

TEST_P(TransformerTest, ThreadCountDoesNotChangeResults) {
    const auto tokens = sequence(9, vocabulary);
    std::vector<float> one, two;
    {
        ThreadPool pool(1);
        Transformer transformer(model, pool);
        KvCache cache(model->config());
        transformer.forward(tokens, cache, one, true);
    }
    {
        ThreadPool pool(2);
        Transformer transformer(model, pool);
        KvCache cache(model->config());
        transformer.forward(tokens, cache, two, true);
    }
    EXPECT_EQ(one, two);
}

INSTANTIATE_TEST_SUITE_P(Architectures, TransformerTest,
                         ::testing::Values(std::tuple(Architecture::llama, GgmlType::F32),
                                           std::tuple(Architecture::qwen2, GgmlType::Q8_0),
                                           std::tuple(Architecture::qwen3, GgmlType::Q4_K),
                                           std::tuple(Architecture::llama, GgmlType::F16)));

// Rows 256 wide, so the K-quant matrices of a Q4_K_M mix are Q4_K and Q6_K.
class BatchInvarianceTest : public ::testing::TestWithParam<std::tuple<Architecture, const char*>> {};

TEST_P(BatchInvarianceTest, DraftSizedBatchesScoreBitForBitLikeSingleSteps) {
    TestModelRecipe recipe = tinySpec(std::get<0>(GetParam()));
    recipe.hiddenSize = 256;
    recipe.feedForwardSize = 512;
    recipe.tiedOutput = false;
    recipe.weights = *TestWeightScheme::parse(std::get<1>(GetParam()));
    const auto model = makeTinyModel(recipe);
    const auto vocabulary = static_cast<std::size_t>(model->config().vocabularySize);
    const auto tokens = sequence(30, static_cast<std::int32_t>(vocabulary));
    const auto prompt = std::span(tokens).first(7);
    const auto rest = std::span(tokens).subspan(7);
    ThreadPool pool(2);
    Transformer transformer(model, pool);

    KvCache stepwise(model->config());
    std::vector<float> logits;
    transformer.forward(prompt, stepwise, logits);
    std::vector<float> expected;
    for (std::size_t i = 0; i < rest.size(); ++i) {
        transformer.forward(rest.subspan(i, 1), stepwise, logits);
        expected.insert(expected.end(), logits.begin(), logits.end());
    }
    for (const std::size_t batch : {2u, 3u, 5u, 9u, 16u}) {
        KvCache cache(model->config());
        transformer.forward(prompt, cache, logits);
        std::vector<float> got;
        for (std::size_t i = 0; i < rest.size(); i += batch) {
            transformer.forward(rest.subspan(i, std::min(batch, rest.size() - i)), cache, logits, true);
            got.insert(got.end(), logits.begin(), logits.end());
        }
        ASSERT_EQ(got.size(), expected.size());
        for (std::size_t i = 0; i < got.size(); ++i) {
            ASSERT_EQ(std::bit_cast<std::uint32_t>(got[i]), std::bit_cast<std::uint32_t>(expected[i]))
                << "batch " << batch << " position " << i / vocabulary << " token " << i % vocabulary;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(ArchitecturesAndWeights, BatchInvarianceTest,
                         ::testing::Combine(::testing::Values(Architecture::llama, Architecture::qwen2,
                                                              Architecture::phi3, Architecture::gemma3),
                                            ::testing::Values("q4_k_m", "q8_0", "q5_k", "f16")));

TEST(Transformer, LongPromptsSpanSeveralBatches) {
    TestModelRecipe recipe = tinySpec(Architecture::qwen2);
    recipe.layerCount = 1;
    const auto model = makeTinyModel(recipe);
    ThreadPool pool(2);
    Transformer transformer(model, pool);
    const auto tokens =
        sequence(Transformer::maxBatch + 40, static_cast<std::int32_t>(model->config().vocabularySize));
    KvCache whole(model->config());
    std::vector<float> a, b;
    transformer.forward(tokens, whole, a);
    KvCache split(model->config());
    transformer.forward(std::span(tokens).first(100), split, b);
    transformer.forward(std::span(tokens).subspan(100), split, b);
    EXPECT_EQ(whole.length(), static_cast<std::int64_t>(tokens.size()));
    EXPECT_LT(maxAbsDifference(a, b), 2e-5f);
}

TEST(Transformer, BadInputLeavesTheCacheAsItWas) {
    TestModelRecipe recipe = tinySpec(Architecture::llama);
    recipe.contextLength = 8;
    const auto model = makeTinyModel(recipe);
    ThreadPool pool(1);
    Transformer transformer(model, pool);
    KvCache cache(model->config());
    std::vector<float> logits;
    const std::int32_t start[] = {1, 2, 3};
    transformer.forward(start, cache, logits);
    const std::vector<float> before = logits;

    const std::int32_t outside[] = {4, static_cast<std::int32_t>(model->config().vocabularySize)};
    EXPECT_THROW(transformer.forward(outside, cache, logits), ModelError);
    EXPECT_EQ(cache.length(), 3);
    const std::int32_t tooMany[] = {1, 2, 3, 4, 5, 6};
    EXPECT_THROW(transformer.forward(tooMany, cache, logits), std::length_error);
    EXPECT_EQ(cache.length(), 3);
    EXPECT_THROW(transformer.forward({}, cache, logits), std::invalid_argument);

    // The cache still continues correctly.
    const std::int32_t more[] = {4};
    transformer.forward(more, cache, logits);
    KvCache fresh(model->config());
    std::vector<float> expected;
    const std::int32_t all[] = {1, 2, 3, 4};
    transformer.forward(all, fresh, expected);
    EXPECT_LT(maxAbsDifference(logits, expected), 2e-5f);
    EXPECT_NE(logits, before);
}

} // namespace
} // namespace parlune::llm
