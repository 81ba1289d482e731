#include "core/selection/CapturedSelection.h"
#include "core/selection/TextReplacementError.h"

#include <gtest/gtest.h>

#include <QCryptographicHash>

namespace parlune {
namespace {

class FakeElement final : public AccessibilityElement {
public:
    explicit FakeElement(std::int64_t hash) : hash_(hash) {}
    bool isSameElement(const AccessibilityElement& other) const override {
        auto* fake = dynamic_cast<const FakeElement*>(&other);
        return fake && fake->hash_ == hash_;
    }
    std::int64_t hashValue() const override { return hash_; }

private:
    std::int64_t hash_;
};

CapturedSelection capture(const QString& text, ProcessId pid, std::optional<TextRange> range,
                          AccessibilityElementRef element) {
    return CapturedSelection(QUuid::createUuid(), text, std::nullopt, pid, range,
                             SelectionReplacementStrategy::directAccessibility, std::move(element));
}

TEST(CapturedSelectionTest, SameSelectionInSamePlaceHasEqualKeysWhateverTheId) {
    auto element = std::make_shared<FakeElement>(77);
    const auto a = capture(QStringLiteral("Hello"), 10, TextRange{3, 5}, element);
    const auto b = capture(QStringLiteral("Hello"), 10, TextRange{3, 5}, std::make_shared<FakeElement>(77));
    EXPECT_NE(a.id(), b.id());
    EXPECT_EQ(a.deduplicationKey(), b.deduplicationKey());
    EXPECT_EQ(CapturedSelection::DeduplicationKeyHash{}(a.deduplicationKey()),
              CapturedSelection::DeduplicationKeyHash{}(b.deduplicationKey()));
    EXPECT_EQ(a.targetIdentifier(), 77);
}

TEST(CapturedSelectionTest, AnyDifferenceInTextRangeElementOrProcessChangesTheKey) {
    auto element = std::make_shared<FakeElement>(77);
    const auto base = capture(QStringLiteral("Hello"), 10, TextRange{3, 5}, element).deduplicationKey();
    EXPECT_NE(base, capture(QStringLiteral("Hellp"), 10, TextRange{3, 5}, element).deduplicationKey());
    EXPECT_NE(base, capture(QStringLiteral("Hello"), 11, TextRange{3, 5}, element).deduplicationKey());
    EXPECT_NE(base, capture(QStringLiteral("Hello"), 10, TextRange{4, 5}, element).deduplicationKey());
    EXPECT_NE(base, capture(QStringLiteral("Hello"), 10, TextRange{3, 4}, element).deduplicationKey());
    EXPECT_NE(base, capture(QStringLiteral("Hello"), 10, TextRange{3, 5}, std::make_shared<FakeElement>(78))
                        .deduplicationKey());
}

TEST(CapturedSelectionTest, RangelessKeyEqualsOnlyAnotherRangelessKey) {
    const auto noRange = capture(QStringLiteral("x"), 1, std::nullopt, nullptr).deduplicationKey();
    EXPECT_FALSE(noRange.rangeLocation);
    EXPECT_FALSE(noRange.rangeLength);
    EXPECT_EQ(noRange, capture(QStringLiteral("x"), 1, std::nullopt, nullptr).deduplicationKey());
    EXPECT_NE(noRange, capture(QStringLiteral("x"), 1, TextRange{0, 0}, nullptr).deduplicationKey());
    EXPECT_EQ(noRange.targetIdentifier, 0);
}

TEST(CapturedSelectionTest, DigestIsSha256OfUtf8AndTheTextIsNotKept) {
    const QString text = QStringLiteral("caf\u00e9 \U0001F600");
    const auto key = capture(text, 1, std::nullopt, nullptr).deduplicationKey();
    EXPECT_EQ(key.sourceDigest.size(), 32);
    EXPECT_EQ(key.sourceDigest, QCryptographicHash::hash(text.toUtf8(), QCryptographicHash::Sha256));
}

TEST(CapturedSelectionTest, CopiesShareOneElementHandle) {
    auto element = std::make_shared<FakeElement>(5);
    std::weak_ptr<FakeElement> watch = element;
    auto first = std::make_unique<CapturedSelection>(
        capture(QStringLiteral("x"), 1, std::nullopt, std::move(element)));
    auto second = std::make_unique<CapturedSelection>(*first);
    EXPECT_EQ(first->target().get(), second->target().get());
    first.reset();
    EXPECT_FALSE(watch.expired()) << "the handle lives while any copy does";
    second.reset();
    EXPECT_TRUE(watch.expired());
}

TEST(SelectionRecordsTest, ErrorDescriptionsAreExact) {
    using Kind = TextReplacementError::Kind;
    const std::pair<Kind, const char*> expected[] = {
        {Kind::accessibilityPermissionMissing,
         "Accessibility permission is required to rewrite selected text in supported applications."},
        {Kind::noSelectedText, "No selected text was found."},
        {Kind::unableToReadFocusedElement, "The focused text field could not be read."},
        {Kind::unableToCreateKeyboardEvent, "Unable to create keyboard events."},
        {Kind::selectionChanged, "The original selection changed before the rewrite completed."},
        {Kind::unsupportedTarget, "The selected text cannot be replaced in this application."},
        {Kind::replacementNotConfirmed, "The application did not confirm that it accepted the replacement."},
    };
    for (const auto& [kind, text] : expected) {
        EXPECT_STREQ(TextReplacementError(kind).what(), text);
    }
}

} // namespace
} // namespace parlune
