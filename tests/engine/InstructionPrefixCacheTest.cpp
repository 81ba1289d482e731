#include "engine/InstructionPrefixCache.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

// A state of `positions` tokens starting at `first`, with cache storage for them.
std::shared_ptr<const InstructionPrefixCache::State> stateOf(std::int32_t first, std::int64_t positions) {
    InstructionPrefixCache::State state{llm::KvCache(1, 1, 8, 1024), {}, {}};
    state.cache.reserve(positions);
    state.cache.append(positions);
    for (std::int64_t i = 0; i < positions; ++i) {
        state.tokens.push_back(first + static_cast<std::int32_t>(i));
    }
    return std::make_shared<const InstructionPrefixCache::State>(std::move(state));
}

TEST(InstructionPrefixCacheTest, LeastRecentlyUsedGoesFirstWhenEntriesRunOut) {
    InstructionPrefixCache cache(2, std::size_t(1) << 30);
    cache.insert(stateOf(1, 3));
    cache.insert(stateOf(10, 3));
    ASSERT_TRUE(cache.find({1, 2, 3})); // now the most recent
    cache.insert(stateOf(20, 3));       // evicts 10..12
    EXPECT_TRUE(cache.find({1, 2, 3}));
    EXPECT_FALSE(cache.find({10, 11, 12}));
    EXPECT_TRUE(cache.find({20, 21, 22}));
    EXPECT_FALSE(cache.find({1, 2})); // only exact token sequences match
    cache.insert(stateOf(1, 3));      // replaces, does not duplicate
    EXPECT_EQ(cache.size(), 2u);
    cache.clear();
    EXPECT_EQ(cache.size(), 0u);
    EXPECT_EQ(cache.bytes(), 0u);
}

TEST(InstructionPrefixCacheTest, ByteCapBoundsWhatIsKept) {
    const std::size_t one = stateOf(1, 3)->cache.allocatedBytes();
    InstructionPrefixCache cache(8, one * 2 + one / 2);
    cache.insert(stateOf(1, 3));
    cache.insert(stateOf(10, 3));
    cache.insert(stateOf(20, 3)); // over the cap: the oldest goes
    EXPECT_EQ(cache.size(), 2u);
    EXPECT_FALSE(cache.find({1, 2, 3}));
    EXPECT_LE(cache.bytes(), one * 2 + one / 2);

    InstructionPrefixCache tiny(8, one / 2);
    tiny.insert(stateOf(1, 3)); // larger than the whole cap: not kept at all
    EXPECT_EQ(tiny.size(), 0u);
}

} // namespace
} // namespace parlune
