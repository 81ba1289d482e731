#include "inference/InstructionPrefixCache.h"

#include "llm/model/Model.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/testing/TestModelMaker.h"
#include "llm/tokenizer/Tokenizer.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <stdexcept>

namespace parlune {
namespace {

const llm::ModelIdentity someModel{1, 2, 3, 4, 5};

// A state of `positions` tokens starting at `first`, with cache storage for them.
std::shared_ptr<const InstructionPrefixCache::State> stateOf(std::int32_t first, std::int64_t positions,
                                                             const llm::ModelIdentity& model = someModel) {
    InstructionPrefixCache::State state{model, llm::KvCache(1, 1, 8, 1024), {}, {}};
    state.cache.reserve(positions);
    state.cache.append(positions);
    for (std::int64_t i = 0; i < positions; ++i) {
        state.tokens.push_back(first + static_cast<std::int32_t>(i));
    }
    return std::make_shared<const InstructionPrefixCache::State>(std::move(state));
}

TEST(InstructionPrefixCacheTest, LeastRecentlyUsedGoesFirstWhenEntriesRunOut) {
    InstructionPrefixCache cache(2, std::size_t(1) << 30);
    const auto ticket = cache.ticket();
    cache.insert(ticket, stateOf(1, 3));
    cache.insert(ticket, stateOf(10, 3));
    ASSERT_TRUE(cache.find(someModel, {1, 2, 3})); // now the most recent
    cache.insert(ticket, stateOf(20, 3));          // evicts 10..12
    EXPECT_TRUE(cache.find(someModel, {1, 2, 3}));
    EXPECT_FALSE(cache.find(someModel, {10, 11, 12}));
    EXPECT_TRUE(cache.find(someModel, {20, 21, 22}));
    EXPECT_FALSE(cache.find(someModel, {1, 2})); // only exact token sequences match
    cache.insert(ticket, stateOf(1, 3));         // replaces, does not duplicate
    EXPECT_EQ(cache.size(), 2u);
    cache.clear();
    EXPECT_EQ(cache.size(), 0u);
    EXPECT_EQ(cache.bytes(), 0u);
}

TEST(InstructionPrefixCacheTest, ByteCapBoundsWhatIsKept) {
    const std::size_t one = stateOf(1, 3)->cache.allocatedBytes();
    InstructionPrefixCache cache(8, one * 2 + one / 2);
    cache.insert(cache.ticket(), stateOf(1, 3));
    cache.insert(cache.ticket(), stateOf(10, 3));
    cache.insert(cache.ticket(), stateOf(20, 3)); // over the cap: the oldest goes
    EXPECT_EQ(cache.size(), 2u);
    EXPECT_FALSE(cache.find(someModel, {1, 2, 3}));
    EXPECT_LE(cache.bytes(), one * 2 + one / 2);

    InstructionPrefixCache tiny(8, one / 2);
    tiny.insert(tiny.ticket(), stateOf(1, 3)); // larger than the whole cap: not kept at all
    EXPECT_EQ(tiny.size(), 0u);
}

TEST(InstructionPrefixCacheTest, AJobForASwitchedAwayModelCannotAddItsState) {
    InstructionPrefixCache cache(8, std::size_t(1) << 30);
    const auto old = cache.ticket();
    cache.insert(old, stateOf(1, 3));
    const auto current = cache.reset(); // the model changed
    EXPECT_EQ(cache.size(), 0u);
    cache.insert(old, stateOf(10, 3)); // still queued for the old backend
    EXPECT_EQ(cache.size(), 0u);
    cache.insert(current, stateOf(10, 3));
    EXPECT_TRUE(cache.find(someModel, {10, 11, 12}));
    cache.clear(); // memory pressure keeps the ticket
    cache.insert(current, stateOf(10, 3));
    EXPECT_EQ(cache.size(), 1u);
}

// Two real files of one shape and different weight types: same tokens, same head size and
// context, so only the model's identity tells their states apart.
TEST(InstructionPrefixCacheTest, AStateFromAnotherWeightTypeIsNeverRestored) {
    QTemporaryDir dir;
    ASSERT_TRUE(dir.isValid());
    const std::filesystem::path base = dir.path().toStdString();
    llm::TestModelRecipe recipe = *llm::TestModelRecipe::shape("tiny", llm::Architecture::qwen2);
    recipe.weights.type = llm::GgmlType::Q8_0;
    llm::TestModelMaker::write(recipe, base / "model-q8_0.gguf");
    recipe.weights.type = llm::GgmlType::Q4_0;
    llm::TestModelMaker::write(recipe, base / "model-q4_0.gguf");
    const auto q8 = llm::Model::load(base / "model-q8_0.gguf");
    const auto q4 = llm::Model::load(base / "model-q4_0.gguf");
    ASSERT_NE(q8->identity(), q4->identity());
    EXPECT_EQ(llm::Model::load(base / "model-q8_0.gguf")->identity(), q8->identity())
        << "stable across loads";

    const std::shared_ptr<const llm::Tokenizer> tokenizer = llm::Tokenizer::fromGguf(q8->file());
    const std::vector<std::int32_t> instructions =
        tokenizer->encode("<|im_start|>system\nbe brief<|im_end|>\n", true);
    llm::ThreadPool pool(1);
    llm::GenerationSession q8Session(q8, tokenizer, pool);
    q8Session.prefill(instructions);
    InstructionPrefixCache cache(8, std::size_t(1) << 30);
    cache.insert(cache.ticket(),
                 std::make_shared<const InstructionPrefixCache::State>(q8Session.saveState()));

    EXPECT_TRUE(cache.find(q8->identity(), instructions));
    EXPECT_FALSE(cache.find(q4->identity(), instructions));
    llm::GenerationSession q4Session(q4, tokenizer, pool);
    EXPECT_THROW(q4Session.restoreState(q8Session.saveState()), std::invalid_argument);

    // The same path rewritten with the other type is another model too.
    const llm::ModelIdentity before = llm::Model::load(base / "model-q4_0.gguf")->identity();
    recipe.weights.type = llm::GgmlType::Q8_0;
    llm::TestModelMaker::write(recipe, base / "model-q4_0.gguf");
    EXPECT_NE(llm::Model::load(base / "model-q4_0.gguf")->identity(), before);
}

} // namespace
} // namespace parlune
