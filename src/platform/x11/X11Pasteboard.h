#pragma once

#include "core/async/Continuation.h"
#include "core/platform/Pasteboard.h"

#include <xcb/xcb.h>

#include <QTimer>

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
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
// loop, reads of another owner's data are asynchronous (the event loop keeps serving our own
// selections while the owner answers), and the change count follows XFixes selection-owner events.
//
// A request is always answered with the contents it was addressed to. Each of our ownerships
// begins with a SetSelectionOwner request whose sequence number is known, and every event carries
// the number of the last request the server had processed when it made the event; so a request
// made while our replacement was the clipboard is served the replacement even when it is read only
// after the user's contents were put back. (Answering it with whatever we hold at the time it is
// read is how a slow paste target would receive the user's own clipboard instead.)
// The clipboard holds one item: what its owner offers.
class X11Pasteboard final : public Pasteboard {
public:
    // `selection` names the X selection spoken for: CLIPBOARD, or PRIMARY for reading only.
    explicit X11Pasteboard(XcbConnection& connection, const char* selection = "CLIPBOARD");
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
    // Our own text, for a window of this very program that pastes it (a client of the X server
    // cannot ask its own process without waiting on itself); counts as a fetch. nullopt when
    // another client owns the clipboard or ours holds no text.
    std::optional<QString> fetchOwnText();
    bool reportsFetches() const override { return true; }

    QCoro::Task<std::vector<QString>> typesAsync(int index) override;
    QCoro::Task<std::optional<QByteArray>> dataAsync(int index, QString type) override;
    QCoro::Task<std::optional<QString>> stringAsync() override;

    // Outgoing incremental transfers still waiting for their requestor; one that stops asking for
    // chunks (it died, or gave up) is dropped after `abandonedTransferMs`.
    std::size_t outgoingTransferCount() const { return transfers_.size(); }
    static constexpr int abandonedTransferMs = 5000;
    // Targets that describe the selection rather than hold its data; never snapshotted.
    static bool isPseudoTarget(const QString& target);

private:
    struct Owned {
        std::vector<std::pair<QString, QByteArray>> values;
        std::int64_t count = 0;
        xcb_timestamp_t time = 0;
        bool transient = false; // our own text, not the user's restored data
        // Sequence numbers of the SetSelectionOwner request that began this ownership and of the
        // one that ended it (none while it lasts).
        std::uint32_t since = 0;
        std::optional<std::uint32_t> until;
    };
    struct PendingRead {
        xcb_atom_t target = XCB_NONE;
        xcb_atom_t property = XCB_NONE;
        bool incremental = false;
        QByteArray bytes;
        Continuation<std::optional<QByteArray>> done;
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
        qint64 lastActivityMs = 0;
    };

    bool handleEvent(const xcb_generic_event_t* event);
    void onOwnerChanged(const xcb_generic_event_t* event);
    void serveRequest(const xcb_selection_request_event_t& request, std::uint32_t sequence);
    const Owned* addressedOwnership(std::uint32_t sequence) const;
    bool serveTarget(const Owned& owned, xcb_window_t requestor, xcb_atom_t property, xcb_atom_t target);
    void continueTransfer(xcb_window_t window, xcb_atom_t property);
    void dropAbandonedTransfers();
    bool setOwner(xcb_window_t owner);
    void retire(std::uint32_t until);
    void sync() const;
    ReadCache& cache() const;
    QCoro::Task<std::optional<QByteArray>> convert(xcb_atom_t target) const;
    bool continueRead(const xcb_generic_event_t* event);
    void finishRead(const std::shared_ptr<PendingRead>& read, std::optional<QByteArray> bytes) const;
    void handOverToClipboardManager();

    XcbConnection& x_;
    xcb_atom_t clipboard_;
    QString selectionName_;
    std::uint8_t xfixesEvent_ = 0;
    int listener_ = 0;
    std::int64_t changeCount_ = 0;
    std::optional<Owned> owned_;
    // Our latest earlier ownerships, for requests made while they lasted but read only later.
    std::deque<Owned> retired_;
    std::set<std::int64_t> fetched_;
    // Time stamps of our own ownership changes whose XFixes reports are still to come.
    std::multiset<xcb_timestamp_t> ownChanges_;
    xcb_timestamp_t lastOwnTime_ = 0;
    std::uint32_t lastOwnerRequest_ = 0;
    std::vector<OutgoingTransfer> transfers_;
    // Requests and transfer steps served, so a wait can tell a requestor still at work.
    std::uint64_t requestsServed_ = 0;
    QTimer transferSweep_;
    mutable ReadCache cache_;
    // Reads of another owner's data in flight, by the property of our window they arrive in.
    mutable std::map<xcb_atom_t, std::shared_ptr<PendingRead>> reads_;
    mutable unsigned readSerial_ = 0;
};

} // namespace parlune::x11
