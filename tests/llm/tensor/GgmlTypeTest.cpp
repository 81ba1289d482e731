#include "llm/tensor/GgmlType.h"

#include <gtest/gtest.h>

#include <limits>

namespace parlune::llm {
namespace {

TEST(GgmlTypeTest, RowBytesFollowBlockLayout) {
    EXPECT_EQ(ggmlRowBytes(GgmlType::F32, 64), 256u);
    EXPECT_EQ(ggmlRowBytes(GgmlType::Q8_0, 64), 68u);
    EXPECT_EQ(ggmlRowBytes(GgmlType::Q4_K, 512), 288u);
    EXPECT_EQ(ggmlRowBytes(GgmlType::Q6_K, 256), 210u);
    EXPECT_EQ(ggmlRowBytes(GgmlType::Q5_0, 0), 0u);
}

TEST(GgmlTypeTest, RejectsPartialBlocksNegativeAndOverflowingRows) {
    EXPECT_FALSE(ggmlRowBytes(GgmlType::Q4_0, 33));
    EXPECT_FALSE(ggmlRowBytes(GgmlType::Q4_K, 64));
    EXPECT_FALSE(ggmlRowBytes(GgmlType::F16, -2));
    EXPECT_FALSE(ggmlRowBytes(GgmlType::F32, std::numeric_limits<std::int64_t>::max()));
}

TEST(GgmlTypeTest, UnknownIdsHaveNoTraitsAndKnownUnsupportedOnesAreRefused) {
    EXPECT_FALSE(ggmlTypeTraits(4u));
    EXPECT_FALSE(ggmlTypeTraits(5u));
    EXPECT_FALSE(ggmlTypeTraits(9999u));
    ASSERT_TRUE(ggmlTypeTraits(9u));
    EXPECT_FALSE(isSupportedWeightType(GgmlType::Q8_1));
    EXPECT_TRUE(isSupportedWeightType(GgmlType::Q5_1));
}

} // namespace
} // namespace parlune::llm
