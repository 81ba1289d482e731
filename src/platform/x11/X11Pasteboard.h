#pragma once

#include "core/platform/Pasteboard.h"

#include <xcb/xcb.h>

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <vector>

namespace parlune::x11 {

class XcbConnection;

// The CLIPBOARD selection, spoken to directly over xcb rather than through QClipboard: Qt folds
// targets into MIME types (STRING, TEXT and UTF8_STRING all become text/plain), so a snapshot
// could not be served back byte for byte under the original target names; it cannot tell when
// another client actually fetched our data; and its reads block the GUI thread in a nested loop.
// Here every offered target is kept with its exact bytes, requests are served from the event
// loop (a read of another owner's data waits only on our own connection, which keeps serving
// requests meanwhile), and the change count follows XFixes selection-owner events.
// The clipboard holds one item: what its owner offers.
class X11Pasteboard final : public Pasteboard {
public:
    explicit X11Pasteboard(XcbConnection& connection);
    ~X11Pasteboard() override;
    X11Pasteboard(const X11Pasteboard&) = delete;
    X11Pasteboard& operator=(const X11Pasteboard&) = delete;

    // Whether the server has XFixes; without it other clients' writes cannot be seen.
    bool isUsable() const { return xfixesEvent_ != 0; }
    // Whether this program holds the clipboard now.
    bool ownsSelection() const;

    std::int64_t changeCount() const override;
    int itemCount() const override;
    std::vector<QString> types(int index) const override;
    std::optional<QByteArray> data(int index, const QString& type) const override;
    std::optional<QString> string() const override;
    QString plainTextType() const override;
    void clearContents() override;
    bool writeItems(const std::vector<PasteboardItem>& items) override;
    void prepareForNewLocalContents() override;
    bool contentsWereFetched(std::int64_t count) const override;

    // Targets that describe the selection rather than hold its data; never snapshotted.
    static bool isPseudoTarget(const QString& target);

private:
    struct Owned {
        std::vector<std::pair<QString, QByteArray>> values;
        std::int64_t count = 0;
        xcb_timestamp_t time = 0;
        bool transient = false; // our own text, not the user's restored data
    };
    struct ReadCache {
        std::int64_t count = -1;
        std::optional<std::vector<QString>> targets;
        std::map<QString, std::optional<QByteArray>> data;
    };
    struct OutgoingTransfer {
        xcb_window_t requestor = 0;
        xcb_atom_t property = 0;
        xcb_atom_t type = 0;
        QByteArray bytes;
        qsizetype offset = 0;
    };

    bool handleEvent(const xcb_generic_event_t* event);
    void onOwnerChanged(const xcb_generic_event_t* event);
    void serveRequest(const xcb_selection_request_event_t& request);
    bool serveTarget(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t target);
    void continueTransfer(xcb_window_t window, xcb_atom_t property);
    bool setOwner(xcb_window_t owner);
    void sync() const;
    ReadCache& cache() const;
    std::optional<QByteArray> convert(xcb_atom_t selection, xcb_atom_t target) const;
    void handOverToClipboardManager();

    XcbConnection& x_;
    xcb_atom_t clipboard_;
    std::uint8_t xfixesEvent_ = 0;
    int listener_ = 0;
    std::int64_t changeCount_ = 0;
    std::optional<Owned> owned_;
    std::set<std::int64_t> fetched_;
    // Time stamps of our own ownership changes whose XFixes reports are still to come.
    std::multiset<xcb_timestamp_t> ownChanges_;
    xcb_timestamp_t lastOwnTime_ = 0;
    std::vector<OutgoingTransfer> transfers_;
    mutable ReadCache cache_;
};

} // namespace parlune::x11
