#include "TinyModel.h"

#include "llm/model/KvCache.h"
#include "llm/model/ModelError.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/runtime/GenerationSession.h"
#include "llm/tokenizer/Tokenizer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <limits>
#include <vector>

namespace parlune::llm {
namespace {

using testing::makeTinyModel;
using testing::maxAbsDifference;
using testing::tinySpec;

class GenerationSessionTest : public ::testing::Test {
protected:
    std::shared_ptr<const Model> model = makeTinyModel(tinySpec(Architecture::qwen2, GgmlType::Q8_0));
    std::shared_ptr<const Tokenizer> tokenizer = Tokenizer::fromGguf(model->file());
    ThreadPool pool{2};
    GenerationSession session{model, tokenizer, pool};

    std::vector<std::int32_t> encode(std::string_view text) const { return tokenizer->encode(text, true); }

    // Greedy tokens computed directly with the transformer, one step at a time.
    std::vector<std::int32_t> referenceGreedy(std::span<const std::int32_t> prompt, int steps) {
        Transformer transformer(model, pool);
        KvCache cache(model->config());
        std::vector<float> logits;
        transformer.forward(prompt, cache, logits);
        std::vector<std::int32_t> out;
        for (int i = 0; i < steps; ++i) {
            out.push_back(GenerationSession::argmax(logits));
            transformer.forward(std::span(out).last(1), cache, logits);
        }
        return out;
    }
};

TEST_F(GenerationSessionTest, GreedyDecodingStreamsTheTextOfEachToken) {
    const auto prompt = encode("<|im_start|>user\nthe weather<|im_end|>\n<|im_start|>assistant\n");
    std::string streamed;
    int pieces = 0;
    const GenerationOptions options{.maxNewTokens = 6, .ignoreEndOfGeneration = true};
    const GenerationResult result = session.generate(prompt, options, [&](std::string_view piece) {
        streamed += piece;
        ++pieces;
    });
    EXPECT_EQ(result.tokens, referenceGreedy(prompt, 6));
    EXPECT_EQ(result.stopReason, StopReason::maxTokens);
    EXPECT_EQ(result.text, streamed);
    EXPECT_EQ(result.text, tokenizer->decode(result.tokens));
    EXPECT_GT(pieces, 0);
    EXPECT_EQ(result.promptTokensComputed, static_cast<std::int64_t>(prompt.size()));
    // The last generated token is never fed back: the cache holds prompt + 5.
    EXPECT_EQ(session.cache().length(), static_cast<std::int64_t>(prompt.size()) + 5);
}

TEST_F(GenerationSessionTest, ReusesTheLongestCachedPrefix) {
    const auto first = encode("<|im_start|>system\nbe brief<|im_end|>\n<|im_start|>user\nhello");
    const auto second = encode("<|im_start|>system\nbe brief<|im_end|>\n<|im_start|>user\nthe other");
    std::size_t shared = 0;
    while (first[shared] == second[shared]) {
        ++shared;
    }
    EXPECT_EQ(session.prefill(first), static_cast<std::int64_t>(first.size()));
    EXPECT_EQ(session.prefill(first), 0); // already there
    EXPECT_EQ(session.prefill(second), static_cast<std::int64_t>(second.size() - shared));
    EXPECT_EQ(session.tokens(), second);

    GenerationSession fresh(model, tokenizer, pool);
    fresh.prefill(second);
    EXPECT_LT(maxAbsDifference(session.logits(), fresh.logits()), 2e-5f);

    // A prompt that is a prefix of the cache recomputes only its last token.
    EXPECT_EQ(session.prefill(std::span(second).first(shared)), 1);
    EXPECT_EQ(session.cache().length(), static_cast<std::int64_t>(shared));
}

TEST_F(GenerationSessionTest, SavedStateServesLaterPrompts) {
    const auto instructions = encode("<|im_start|>system\nrewrite the text<|im_end|>\n<|im_start|>");
    session.prefill(instructions);
    const GenerationSession::State saved = session.saveState();

    auto prompt = instructions;
    for (const std::int32_t token : encode("user\nat the sea<|im_end|>\n<|im_start|>assistant\n")) {
        prompt.push_back(token);
    }
    session.prefill(encode("something unrelated"));
    session.restoreState(saved);
    const GenerationResult result =
        session.generate(prompt, {.maxNewTokens = 4, .ignoreEndOfGeneration = true}, {});
    EXPECT_EQ(result.promptTokensReused, static_cast<std::int64_t>(instructions.size()));
    EXPECT_EQ(result.tokens, referenceGreedy(prompt, 4));
    EXPECT_EQ(saved.cache.length(), static_cast<std::int64_t>(instructions.size())); // unchanged by use

    GenerationSession::State wrongLength = saved;
    wrongLength.tokens.pop_back();
    EXPECT_THROW(session.restoreState(wrongLength), std::invalid_argument);
}

TEST_F(GenerationSessionTest, StopFlagEndsBetweenTokens) {
    const auto prompt = encode("the sea");
    std::atomic<bool> stop{true};
    const GenerationOptions options{.maxNewTokens = 10, .stopFlag = &stop, .ignoreEndOfGeneration = true};
    GenerationResult result = session.generate(prompt, options, {});
    EXPECT_EQ(result.stopReason, StopReason::stopRequested);
    EXPECT_TRUE(result.tokens.empty());

    stop = false;
    int calls = 0;
    result = session.generate(prompt, options, [&](std::string_view) {
        if (++calls == 2) {
            stop = true;
        }
    });
    EXPECT_EQ(result.stopReason, StopReason::stopRequested);
    EXPECT_GE(result.tokens.size(), 2u);
    EXPECT_LT(result.tokens.size(), 10u);
}

TEST_F(GenerationSessionTest, StopsWhenTheContextIsFull) {
    TestModelRecipe recipe = tinySpec(Architecture::llama);
    recipe.contextLength = 8;
    GenerationSession small(makeTinyModel(recipe), tokenizer, pool);
    const std::int32_t prompt[] = {10, 20, 30, 40, 50};
    const GenerationOptions options{.maxNewTokens = 50, .ignoreEndOfGeneration = true};
    const GenerationResult result = small.generate(prompt, options, {});
    EXPECT_EQ(result.stopReason, StopReason::contextFull);
    EXPECT_EQ(result.tokens.size(), 4u); // three fit in the cache, the fourth comes from the last logits
    const std::int32_t tooLong[] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_THROW(small.generate(tooLong, options, {}), std::length_error);
}

TEST_F(GenerationSessionTest, EndOfGenerationTokenStopsWithoutBeingEmitted) {
    // An untied output so greedy decoding does not just repeat its input.
    TestModelRecipe recipe = tinySpec(Architecture::qwen2, GgmlType::Q8_0);
    recipe.tiedOutput = false;
    const std::int32_t prompt[] = {40, 41, 42};
    GenerationOptions options{.maxNewTokens = 12, .ignoreEndOfGeneration = true};
    const auto greedy =
        GenerationSession(makeTinyModel(recipe), tokenizer, pool).generate(prompt, options, {}).tokens;
    // The first greedy token not produced before it becomes end-of-sequence.
    const std::size_t stopAt = testing::firstUnseen(greedy, 1);
    ASSERT_LT(stopAt, greedy.size());
    const auto ending = makeTinyModel(recipe, greedy[stopAt]);
    options.ignoreEndOfGeneration = false;
    const GenerationResult result =
        GenerationSession(ending, Tokenizer::fromGguf(ending->file()), pool).generate(prompt, options, {});
    EXPECT_EQ(result.stopReason, StopReason::endOfGeneration);
    EXPECT_EQ(result.tokens, std::vector<std::int32_t>(greedy.begin(),
                                                       greedy.begin() + static_cast<std::ptrdiff_t>(stopAt)));
}

TEST(GenerationSessionArgmax, TiesGoToTheLowestId) {
    const std::vector<float> logits = {0.5f, 2.0f, -1.0f, 2.0f};
    EXPECT_EQ(GenerationSession::argmax(logits), 1);
    EXPECT_THROW(GenerationSession::argmax({}), std::invalid_argument);
}

TEST(GenerationSessionScores, NonFiniteScoresAreAFailureNotAnAnswer) {
    // A file whose final norm holds NaN and infinity, as a damaged download might.
    std::vector<std::byte> bytes = TestModelMaker::build(testing::tinySpec(Architecture::llama)).toBytes();
    const auto parsed = GgufFile::fromBuffer(bytes);
    const GgufTensorInfo* norm = parsed->findTensor("output_norm.weight");
    ASSERT_NE(norm, nullptr);
    ASSERT_EQ(norm->type, GgmlType::F32);
    const float poison[] = {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity()};
    std::memcpy(bytes.data() + parsed->dataOffset() + norm->offset, poison, sizeof poison);

    const auto model = Model::fromFile(GgufFile::fromBuffer(std::move(bytes), "poisoned"));
    ThreadPool pool{2};
    GenerationSession session(model, Tokenizer::fromGguf(model->file()), pool);
    const std::vector<std::int32_t> prompt{1, 2, 3};
    try {
        session.prefill(prompt);
        FAIL() << "scores that are not numbers gave an answer";
    } catch (const ModelError& error) {
        EXPECT_NE(std::string(error.what()).find("not finite"), std::string::npos) << error.what();
    }
}

} // namespace
} // namespace parlune::llm
