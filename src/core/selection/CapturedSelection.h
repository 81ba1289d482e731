#pragma once

#include "core/platform/AccessibilityElement.h"
#include "core/platform/ProcessId.h"
#include "core/platform/TextRange.h"
#include "core/selection/SelectionReplacementStrategy.h"

#include <QByteArray>
#include <QString>
#include <QUuid>

#include <cstdint>
#include <memory>
#include <optional>

namespace parlune {

// One selection captured in another application. Immutable; copies share the element handle,
// which lives as long as any copy does.
class CapturedSelection {
public:
    // Recognises a repeated press on the same, unchanged selection. Holds only a digest of the text.
    struct DeduplicationKey {
        std::optional<ProcessId> processIdentifier;
        std::int64_t targetIdentifier = 0;
        std::optional<std::int64_t> rangeLocation;
        std::optional<std::int64_t> rangeLength;
        QByteArray sourceDigest; // SHA-256 of the UTF-8 text, 32 bytes

        friend bool operator==(const DeduplicationKey&, const DeduplicationKey&) = default;
    };

    struct DeduplicationKeyHash {
        std::size_t operator()(const DeduplicationKey& key) const noexcept;
    };

    struct Storage {
        AccessibilityElementRef target;
    };

    // `target` may be null (capture through the frontmost application). The target identifier is
    // the element's hash, or 0 without an element.
    CapturedSelection(QUuid id, QString text, std::optional<QString> applicationBundleIdentifier,
                      std::optional<ProcessId> applicationProcessIdentifier,
                      std::optional<TextRange> selectedRange,
                      SelectionReplacementStrategy replacementStrategy, AccessibilityElementRef target);

    const QUuid& id() const { return id_; }
    const QString& text() const { return text_; }
    const std::optional<QString>& applicationBundleIdentifier() const { return applicationBundleIdentifier_; }
    std::optional<ProcessId> applicationProcessIdentifier() const { return applicationProcessIdentifier_; }
    std::optional<TextRange> selectedRange() const { return selectedRange_; }
    SelectionReplacementStrategy replacementStrategy() const { return replacementStrategy_; }
    const AccessibilityElementRef& target() const { return storage_->target; }
    std::int64_t targetIdentifier() const { return targetIdentifier_; }

    DeduplicationKey deduplicationKey() const;

private:
    QUuid id_;
    QString text_;
    std::optional<QString> applicationBundleIdentifier_;
    std::optional<ProcessId> applicationProcessIdentifier_;
    std::optional<TextRange> selectedRange_;
    SelectionReplacementStrategy replacementStrategy_;
    std::shared_ptr<const Storage> storage_;
    std::int64_t targetIdentifier_ = 0;
};

} // namespace parlune
