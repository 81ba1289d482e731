#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <vector>

namespace parlune {

// The user's pasteboard as it was before the program used it: every item, every readable type,
// the exact bytes.
struct ClipboardSnapshot {
    struct PasteboardValue {
        QString type;
        QByteArray data;

        friend bool operator==(const PasteboardValue&, const PasteboardValue&) = default;
    };

    struct Item {
        std::vector<PasteboardValue> values; // in the item's type order

        friend bool operator==(const Item&, const Item&) = default;
    };

    std::int64_t changeCount = 0;
    std::vector<Item> items; // in pasteboard order

    friend bool operator==(const ClipboardSnapshot&, const ClipboardSnapshot&) = default;
};

} // namespace parlune
