#pragma once

#include "core/selection/ClipboardSnapshot.h"

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QString>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace parlune {

class Pasteboard;

// Saves and restores the user's pasteboard and places the program's own transient strings on it.
// Main thread only.
class ClipboardManager {
public:
    using TypedData = std::pair<QString, QByteArray>;

    // Written beside every string this program puts on the pasteboard, so that pasteboard-history
    // tools skip it: the public transient/concealed markers, plus the hint KDE's tools honour.
    static std::vector<TypedData> linuxMarkers();
    static std::vector<TypedData> macOSMarkers();

    explicit ClipboardManager(Pasteboard& pasteboard, std::vector<TypedData> markers = linuxMarkers());

    // Every item in order, every type of an item in order; a type whose data cannot be read is
    // skipped, an item whose types all fail stays as an empty item. The change count is read last.
    // Reads of another program's contents wait for that program without blocking the event loop.
    QCoro::Task<ClipboardSnapshot> capture() const;

    // Puts `snapshot` back, unless `count` is given and the pasteboard changed since then (someone
    // else's newer contents win). Returns whether it restored (false also when the write was refused).
    bool restore(const ClipboardSnapshot& snapshot, std::optional<std::int64_t> ifUnchangedSince);

    // Announces new contents offered to this computer only.
    void prepareForLocalCapture();
    // Writes `text` as one item of plain text plus the marker types.
    void setTransientLocalString(const QString& text);

    QCoro::Task<std::optional<QString>> currentString() const;
    std::int64_t changeCount() const;

    Pasteboard& pasteboard() const { return pasteboard_; }

private:
    Pasteboard& pasteboard_;
    std::vector<TypedData> markers_;
};

} // namespace parlune
