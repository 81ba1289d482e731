#include "llm/model/KvCache.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace parlune::llm {
namespace {

TEST(KvCache, GrowsInChunksUpToTheContext) {
    KvCache cache(2, 2, 8, 600);
    EXPECT_EQ(cache.capacity(), 0);
    EXPECT_EQ(cache.allocatedBytes(), 0u);
    cache.reserve(1);
    EXPECT_EQ(cache.capacity(), KvCache::growthChunk);
    cache.reserve(KvCache::growthChunk + 1);
    EXPECT_EQ(cache.capacity(), 2 * KvCache::growthChunk);
    cache.reserve(599);
    EXPECT_EQ(cache.capacity(), 600); // capped, not rounded past the context
    EXPECT_EQ(cache.allocatedBytes(), 2u * 2 * 2 * 600 * 8 * sizeof(float));
    EXPECT_THROW(cache.reserve(601), std::length_error);
}

TEST(KvCache, KeepsContentsWhenGrowing) {
    KvCache cache(1, 2, 4, 1000);
    cache.reserve(3);
    const auto value = [](std::int64_t d, std::int64_t p) { return static_cast<float>(10 * d + p); };
    for (std::int64_t p = 0; p < 3; ++p) {
        for (std::int64_t d = 0; d < 4; ++d) {
            cache.keys(0, 1)[p * 4 + d] = -value(d, p);
            cache.values(0, 0)[d * cache.valueStride() + p] = value(d, p);
        }
    }
    cache.append(3);
    cache.reserve(700);
    EXPECT_EQ(cache.valueStride(), 768);
    for (std::int64_t p = 0; p < 3; ++p) {
        for (std::int64_t d = 0; d < 4; ++d) {
            EXPECT_EQ(cache.keys(0, 1)[p * 4 + d], -value(d, p));
            EXPECT_EQ(cache.values(0, 0)[d * cache.valueStride() + p],
                      value(d, p)); // rows moved to the new stride
        }
    }
    EXPECT_EQ(cache.length(), 3);
}

TEST(KvCache, CopiesAreIndependentSnapshots) {
    KvCache cache(1, 1, 2, 16);
    cache.reserve(2);
    cache.keys(0, 0)[0] = 1.0f;
    cache.append(2);
    KvCache snapshot = cache;
    cache.keys(0, 0)[0] = 2.0f;
    cache.truncate(1);
    EXPECT_EQ(snapshot.keys(0, 0)[0], 1.0f);
    EXPECT_EQ(snapshot.length(), 2);
    EXPECT_EQ(cache.length(), 1);
}

TEST(KvCache, RejectsMisuse) {
    EXPECT_THROW(KvCache(0, 1, 1, 1), std::invalid_argument);
    EXPECT_THROW(KvCache(std::int64_t{1} << 40, std::int64_t{1} << 40, 1, 1),
                 std::invalid_argument); // before any allocation
    KvCache cache(1, 1, 2, 16);
    cache.reserve(4);
    EXPECT_THROW(cache.append(17), std::logic_error); // past the 16 reserved
    cache.append(4);
    EXPECT_THROW(cache.truncate(5), std::out_of_range);
    EXPECT_THROW(cache.truncate(-1), std::out_of_range);
    cache.clear();
    EXPECT_EQ(cache.length(), 0);
    EXPECT_EQ(cache.capacity(), 16); // storage is kept for the next prompt
}

} // namespace
} // namespace parlune::llm
