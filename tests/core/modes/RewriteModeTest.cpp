#include "core/modes/RewriteMode.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(RewriteModeTest, OnlyExactTitlesConstructAMode) {
    for (const RewriteMode mode : rewrite_mode::allCases) {
        EXPECT_EQ(rewrite_mode::fromRawValue(rewrite_mode::rawValue(mode)), mode);
    }
    for (const char* raw : {"improve clarity", "Improve Clarity", " Casual", "Casual ", "", "casual",
                            "improvePrompt", "Make  concise"}) {
        EXPECT_FALSE(rewrite_mode::fromRawValue(raw).has_value()) << raw;
    }
}

} // namespace
} // namespace parlune
