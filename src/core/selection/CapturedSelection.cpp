#include "core/selection/CapturedSelection.h"

#include <QCryptographicHash>
#include <QHashFunctions>

#include <cstdlib>
#include <functional>

namespace parlune {

CapturedSelection::CapturedSelection(QUuid id, QString text,
                                     std::optional<QString> applicationBundleIdentifier,
                                     std::optional<ProcessId> applicationProcessIdentifier,
                                     std::optional<TextRange> selectedRange,
                                     SelectionReplacementStrategy replacementStrategy,
                                     AccessibilityElementRef target)
    : id_(id), text_(std::move(text)), applicationBundleIdentifier_(std::move(applicationBundleIdentifier)),
      applicationProcessIdentifier_(applicationProcessIdentifier), selectedRange_(selectedRange),
      replacementStrategy_(replacementStrategy),
      storage_(std::make_shared<const Storage>(Storage{std::move(target)})) {
    if (storage_->target) {
        targetIdentifier_ = storage_->target->hashValue();
        // A negative hash breaks the element-identity contract of the platform layer.
        if (targetIdentifier_ < 0) {
            std::abort();
        }
    }
}

CapturedSelection::DeduplicationKey CapturedSelection::deduplicationKey() const {
    DeduplicationKey key;
    key.processIdentifier = applicationProcessIdentifier_;
    key.targetIdentifier = targetIdentifier_;
    if (selectedRange_) {
        key.rangeLocation = selectedRange_->location;
        key.rangeLength = selectedRange_->length;
    }
    key.sourceDigest = QCryptographicHash::hash(text_.toUtf8(), QCryptographicHash::Sha256);
    return key;
}

std::size_t CapturedSelection::DeduplicationKeyHash::operator()(const DeduplicationKey& key) const noexcept {
    std::size_t seed = qHash(key.sourceDigest);
    auto mix = [&seed](std::size_t value) {
        seed ^= value + 0x9e3779b97f4a7c15ULL + (seed << 6) + (seed >> 2);
    };
    mix(key.processIdentifier ? std::hash<ProcessId>{}(*key.processIdentifier) : 0x5bd1e995u);
    mix(std::hash<std::int64_t>{}(key.targetIdentifier));
    mix(key.rangeLocation ? std::hash<std::int64_t>{}(*key.rangeLocation) : 0x27d4eb2du);
    mix(key.rangeLength ? std::hash<std::int64_t>{}(*key.rangeLength) : 0x165667b1u);
    return seed;
}

} // namespace parlune
