#pragma once

#include <QByteArray>
#include <QCoro/QCoroTask>
#include <QString>

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

namespace parlune {

// One pasteboard item: its (type, data) pairs in the order they were offered.
struct PasteboardItem {
    std::vector<std::pair<QString, QByteArray>> values;

    friend bool operator==(const PasteboardItem&, const PasteboardItem&) = default;
};

// The system's general pasteboard (the CLIPBOARD selection on X11).
class Pasteboard {
public:
    virtual ~Pasteboard() = default;

    // Rises with every change of contents, by anyone, this program included.
    virtual std::int64_t changeCount() const = 0;
    virtual int itemCount() const = 0;
    // Types offered by item `index`, in order; empty when the item is gone.
    virtual std::vector<QString> types(int index) const = 0;
    // Data of one type of one item; nullopt when it cannot be read.
    virtual std::optional<QByteArray> data(int index, const QString& type) const = 0;
    // The plain-text contents; nullopt when there is no text.
    virtual std::optional<QString> string() const = 0;
    // The type under which plain text is written.
    virtual QString plainTextType() const = 0;

    virtual void clearContents() = 0;
    // Replaces the contents with these items in one write; returns false when refused.
    virtual bool writeItems(const std::vector<PasteboardItem>& items) = 0;
    // Announces new contents that are offered to this computer only.
    virtual void prepareForNewLocalContents() = 0;

    // The reads above without blocking the caller: where the contents belong to another program,
    // the answer comes from that program, and waiting for it must leave the event loop running.
    // The defaults answer at once through the calls above.
    virtual QCoro::Task<std::vector<QString>> typesAsync(int index);
    virtual QCoro::Task<std::optional<QByteArray>> dataAsync(int index, QString type);
    virtual QCoro::Task<std::optional<QString>> stringAsync();

    // Whether another application fetched real data (not just the list of types) of what this
    // program wrote while the change count was `count`. Platforms that cannot tell answer false.
    virtual bool contentsWereFetched(std::int64_t count) const {
        (void)count;
        return false;
    }
    // Whether contentsWereFetched() can answer true at all. Where it can, a paste is not over until
    // the target has fetched what was pasted, so the old contents are put back only after that.
    virtual bool reportsFetches() const { return false; }
};

} // namespace parlune
