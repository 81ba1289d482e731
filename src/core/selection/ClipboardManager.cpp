#include "core/selection/ClipboardManager.h"

#include "core/platform/Pasteboard.h"

namespace parlune {

namespace {
const QString transientType = QStringLiteral("org.nspasteboard.TransientType");
const QString concealedType = QStringLiteral("org.nspasteboard.ConcealedType");
} // namespace

std::vector<ClipboardManager::TypedData> ClipboardManager::macOSMarkers() {
    return {{transientType, QByteArray()}, {concealedType, QByteArray()}};
}

std::vector<ClipboardManager::TypedData> ClipboardManager::linuxMarkers() {
    auto markers = macOSMarkers();
    markers.emplace_back(QStringLiteral("x-kde-passwordManagerHint"), QByteArrayLiteral("secret"));
    return markers;
}

ClipboardManager::ClipboardManager(Pasteboard& pasteboard, std::vector<TypedData> markers)
    : pasteboard_(pasteboard), markers_(std::move(markers)) {}

QCoro::Task<ClipboardSnapshot> ClipboardManager::capture() const {
    ClipboardSnapshot snapshot;
    const int count = pasteboard_.itemCount();
    snapshot.items.reserve(static_cast<std::size_t>(std::max(count, 0)));
    for (int index = 0; index < count; ++index) {
        ClipboardSnapshot::Item item;
        for (const QString& type : co_await pasteboard_.typesAsync(index)) {
            if (auto data = co_await pasteboard_.dataAsync(index, type)) {
                item.values.push_back({type, std::move(*data)});
            }
        }
        snapshot.items.push_back(std::move(item));
    }
    // Read last: a write that raced the reads above makes a later restore-if-unchanged refuse.
    snapshot.changeCount = pasteboard_.changeCount();
    co_return snapshot;
}

bool ClipboardManager::restore(const ClipboardSnapshot& snapshot,
                               std::optional<std::int64_t> ifUnchangedSince) {
    if (ifUnchangedSince && *ifUnchangedSince != pasteboard_.changeCount()) {
        return false;
    }
    pasteboard_.clearContents();
    if (snapshot.items.empty()) {
        return true;
    }
    std::vector<PasteboardItem> items;
    items.reserve(snapshot.items.size());
    for (const auto& saved : snapshot.items) {
        PasteboardItem item;
        item.values.reserve(saved.values.size());
        for (const auto& value : saved.values) {
            item.values.emplace_back(value.type, value.data);
        }
        items.push_back(std::move(item));
    }
    return pasteboard_.writeItems(items);
}

void ClipboardManager::prepareForLocalCapture() {
    pasteboard_.prepareForNewLocalContents();
}

void ClipboardManager::setTransientLocalString(const QString& text) {
    pasteboard_.prepareForNewLocalContents();
    PasteboardItem item;
    item.values.reserve(markers_.size() + 1);
    item.values.emplace_back(pasteboard_.plainTextType(), text.toUtf8());
    for (const auto& marker : markers_) {
        item.values.push_back(marker);
    }
    pasteboard_.writeItems({item});
}

QCoro::Task<std::optional<QString>> ClipboardManager::currentString() const {
    co_return co_await pasteboard_.stringAsync();
}

std::int64_t ClipboardManager::changeCount() const {
    return pasteboard_.changeCount();
}

} // namespace parlune
