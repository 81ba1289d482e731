#include "core/modes/RewriteMode.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(RewriteModeTest, AllCasesKeepMenuOrderAndTitles) {
    const char* titles[] = {"Improve clarity", "Make concise", "Professional", "Casual", "Improve prompt"};
    ASSERT_EQ(rewrite_mode::allCases.size(), 5u);
    for (std::size_t i = 0; i < rewrite_mode::allCases.size(); ++i) {
        EXPECT_EQ(rewrite_mode::rawValue(rewrite_mode::allCases[i]), titles[i]);
        EXPECT_EQ(rewrite_mode::fromRawValue(titles[i]), rewrite_mode::allCases[i]);
    }
}

TEST(RewriteModeTest, OnlyExactTitlesConstructAMode) {
    for (const char* raw : {"improve clarity", "Improve Clarity", " Casual", "Casual ", "", "casual",
                            "improvePrompt", "Make  concise"}) {
        EXPECT_FALSE(rewrite_mode::fromRawValue(raw).has_value()) << raw;
    }
}

} // namespace
} // namespace parlune
