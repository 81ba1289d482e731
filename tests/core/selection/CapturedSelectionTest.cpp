#include "core/selection/CapturedSelection.h"

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

// The key is equal for the same text, process, range and element whatever the capture's id,
// and differs with any of them; a capture without a range equals only another without one.
TEST(CapturedSelectionTest, TheDeduplicationKeyIsTheSelectionsPlaceAndText) {
    auto element = std::make_shared<FakeElement>(77);
    const auto a = capture(QStringLiteral("Hello"), 10, TextRange{3, 5}, element);
    const auto b = capture(QStringLiteral("Hello"), 10, TextRange{3, 5}, std::make_shared<FakeElement>(77));
    EXPECT_NE(a.id(), b.id());
    EXPECT_EQ(a.deduplicationKey(), b.deduplicationKey());
    EXPECT_EQ(CapturedSelection::DeduplicationKeyHash{}(a.deduplicationKey()),
              CapturedSelection::DeduplicationKeyHash{}(b.deduplicationKey()));
    EXPECT_EQ(a.targetIdentifier(), 77);
    const auto base = a.deduplicationKey();
    EXPECT_NE(base, capture(QStringLiteral("Hellp"), 10, TextRange{3, 5}, element).deduplicationKey());
    EXPECT_NE(base, capture(QStringLiteral("Hello"), 11, TextRange{3, 5}, element).deduplicationKey());
    EXPECT_NE(base, capture(QStringLiteral("Hello"), 10, TextRange{4, 5}, element).deduplicationKey());
    EXPECT_NE(base, capture(QStringLiteral("Hello"), 10, TextRange{3, 4}, element).deduplicationKey());
    EXPECT_NE(base, capture(QStringLiteral("Hello"), 10, TextRange{3, 5}, std::make_shared<FakeElement>(78))
                        .deduplicationKey());

    const auto noRange = capture(QStringLiteral("x"), 1, std::nullopt, nullptr).deduplicationKey();
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

} // namespace
} // namespace parlune
