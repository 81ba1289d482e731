#include "core/selection/CapturedSelection.h"
#include "desktop/SimulatedAccessibility.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace parlune::test {
namespace {

CapturedSelection made(const QString& text, std::optional<ProcessId> pid, std::optional<TextRange> range,
                       int field) {
    AccessibilityElementRef element = field ? std::make_shared<SimulatedElement>(field) : nullptr;
    return CapturedSelection(QUuid::createUuid(), text, QStringLiteral("org.example.Editor"), pid, range,
                             SelectionReplacementStrategy::clipboardFallback, element);
}

TEST(CapturedSelectionTest, DeduplicationKeyIgnoresIdButNothingElse) {
    const auto base = made(QStringLiteral("naïve 🙂"), 7, TextRange{2, 8}, 3);
    const auto again = made(QStringLiteral("naïve 🙂"), 7, TextRange{2, 8}, 3);
    EXPECT_NE(base.id(), again.id());
    EXPECT_EQ(base.deduplicationKey(), again.deduplicationKey());
    EXPECT_EQ(base.deduplicationKey().sourceDigest.size(), 32);

    std::unordered_set<CapturedSelection::DeduplicationKey, CapturedSelection::DeduplicationKeyHash> keys{
        base.deduplicationKey()};
    for (const auto& other : {made(QStringLiteral("naive 🙂"), 7, TextRange{2, 8}, 3),
                              made(QStringLiteral("naïve 🙂"), 8, TextRange{2, 8}, 3),
                              made(QStringLiteral("naïve 🙂"), 7, TextRange{3, 8}, 3),
                              made(QStringLiteral("naïve 🙂"), 7, TextRange{2, 9}, 3),
                              made(QStringLiteral("naïve 🙂"), 7, TextRange{2, 8}, 4),
                              made(QStringLiteral("naïve 🙂"), 7, std::nullopt, 3)}) {
        EXPECT_NE(other.deduplicationKey(), base.deduplicationKey());
        EXPECT_TRUE(keys.insert(other.deduplicationKey()).second);
    }
    // Without a range, equal only to another key without one.
    EXPECT_EQ(made(QStringLiteral("x"), 7, std::nullopt, 0).deduplicationKey(),
              made(QStringLiteral("x"), 7, std::nullopt, 0).deduplicationKey());
    EXPECT_EQ(made(QStringLiteral("x"), 7, std::nullopt, 0).targetIdentifier(), 0);
}

TEST(CapturedSelectionTest, CopiesShareTheElementHandle) {
    std::weak_ptr<const AccessibilityElement> watch;
    {
        const auto original = made(QStringLiteral("x"), 7, TextRange{0, 1}, 9);
        watch = original.target();
        const CapturedSelection copy = original; // NOLINT(performance-unnecessary-copy-initialization)
        EXPECT_EQ(copy.target().get(), original.target().get());
        EXPECT_EQ(copy.targetIdentifier(), 9);
    }
    EXPECT_TRUE(watch.expired());
}

TEST(SelectionReplacementStrategyTest, RawValuesAreExact) {
    EXPECT_EQ(selection_replacement_strategy::fromRawValue("directAccessibility"),
              SelectionReplacementStrategy::directAccessibility);
    EXPECT_EQ(selection_replacement_strategy::fromRawValue("clipboardFallback"),
              SelectionReplacementStrategy::clipboardFallback);
    EXPECT_FALSE(selection_replacement_strategy::fromRawValue("ClipboardFallback"));
    EXPECT_FALSE(selection_replacement_strategy::fromRawValue(""));
}

} // namespace
} // namespace parlune::test
