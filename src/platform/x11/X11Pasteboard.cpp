#include "platform/x11/X11Pasteboard.h"

#include "core/async/RunUntilDone.h"
#include "platform/x11/XcbConnection.h"

#include <QDateTime>
#include <QElapsedTimer>

#include <xcb/xfixes.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace parlune::x11 {

namespace {

const QString transientMarker = QStringLiteral("org.nspasteboard.TransientType");
const QString concealedMarker = QStringLiteral("org.nspasteboard.ConcealedType");
// The hint Linux clipboard managers honour for secrets; offered beside the concealed marker.
const QString passwordManagerHint = QStringLiteral("x-kde-passwordManagerHint");
const QString utf8String = QStringLiteral("UTF8_STRING");

constexpr int readTimeoutMs = 1000;
// A clipboard manager copying our data at exit may be slow on a loaded machine: it is waited for
// while it keeps asking, and given up after this long without a request (one that stopped
// answering) or, in all, after the cap.
constexpr int handOverQuietMs = 5000;
constexpr int handOverCapMs = 30000;
// Ownerships kept after they ended, for requests still on their way to us.
constexpr std::size_t retiredKept = 8;

qint64 nowMs() {
    return QDateTime::currentMSecsSinceEpoch();
}

template <typename Event> const Event* as(const xcb_generic_event_t* event) {
    return reinterpret_cast<const Event*>(event);
}

} // namespace

bool X11Pasteboard::isPseudoTarget(const QString& target) {
    static const QString pseudo[] = {
        QStringLiteral("TARGETS"),         QStringLiteral("MULTIPLE"),
        QStringLiteral("TIMESTAMP"),       QStringLiteral("SAVE_TARGETS"),
        QStringLiteral("DELETE"),          QStringLiteral("INSERT_SELECTION"),
        QStringLiteral("INSERT_PROPERTY"), QStringLiteral("GTK_TEXT_BUFFER_CONTENTS")};
    return std::find(std::begin(pseudo), std::end(pseudo), target) != std::end(pseudo);
}

X11Pasteboard::X11Pasteboard(XcbConnection& connection, const char* selection)
    : x_(connection), clipboard_(connection.atom(selection)), selectionName_(QString::fromLatin1(selection)) {
    xcb_connection_t* c = x_.raw();
    const xcb_query_extension_reply_t* xfixes = xcb_get_extension_data(c, &xcb_xfixes_id);
    if (xfixes && xfixes->present) {
        const XcbReply<xcb_xfixes_query_version_reply_t> version(
            xcb_xfixes_query_version_reply(c, xcb_xfixes_query_version(c, 5, 0), nullptr));
        if (version) {
            xfixesEvent_ = xfixes->first_event;
            xcb_xfixes_select_selection_input(c, x_.window(), clipboard_,
                                              XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER |
                                                  XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY |
                                                  XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
            xcb_flush(c);
        }
    }
    listener_ = x_.addListener([this](const xcb_generic_event_t* event) { return handleEvent(event); });
    transferSweep_.setInterval(abandonedTransferMs / 2);
    QObject::connect(&transferSweep_, &QTimer::timeout, [this] { dropAbandonedTransfers(); });
}

X11Pasteboard::~X11Pasteboard() {
    if (owned_) {
        if (owned_->transient) {
            // Our own transient text must not outlive us, nor be what the clipboard holds.
            setOwner(XCB_NONE);
        } else {
            // The user's data vanishes with its owner unless a clipboard manager keeps a copy.
            handOverToClipboardManager();
        }
    }
    x_.removeListener(listener_);
    for (const auto& [property, read] : reads_) {
        read->done.resume(std::nullopt);
    }
    xcb_flush(x_.raw());
}

// --- reading ---------------------------------------------------------------------------------

void X11Pasteboard::sync() const {
    // A round trip: every event the server sent before its reply is then in our queue.
    x_.selectionOwner(clipboard_);
    x_.dispatchPending();
}

std::int64_t X11Pasteboard::changeCount() const {
    sync();
    return changeCount_;
}

X11Pasteboard::ReadCache& X11Pasteboard::cache() const {
    sync();
    if (cache_.count != changeCount_) {
        cache_ = ReadCache{changeCount_, std::nullopt, {}};
    }
    return cache_;
}

QCoro::Task<std::optional<QByteArray>> X11Pasteboard::convert(xcb_atom_t target) const {
    // Each read lands in a property of its own, so that reads may overlap.
    auto read = std::make_shared<PendingRead>();
    read->target = target;
    read->property = x_.atom(QStringLiteral("_PARLUNE_%1_%2").arg(selectionName_).arg(readSerial_++ % 16));
    if (reads_.count(read->property)) {
        co_return std::nullopt; // sixteen reads in flight: the owner is not answering anyway
    }
    xcb_connection_t* c = x_.raw();
    xcb_delete_property(c, x_.window(), read->property);
    xcb_convert_selection(c, x_.window(), clipboard_, target, read->property, XCB_CURRENT_TIME);
    xcb_flush(c);
    reads_.emplace(read->property, read);

    QTimer timeout;
    timeout.setSingleShot(true);
    QObject::connect(&timeout, &QTimer::timeout, [this, read] { finishRead(read, std::nullopt); });
    timeout.start(readTimeoutMs);
    std::optional<QByteArray> bytes = co_await read->done.wait();
    co_return bytes;
}

void X11Pasteboard::finishRead(const std::shared_ptr<PendingRead>& read,
                               std::optional<QByteArray> bytes) const {
    auto it = reads_.find(read->property);
    if (it != reads_.end() && it->second == read) {
        reads_.erase(it);
    }
    read->done.resume(std::move(bytes));
}

bool X11Pasteboard::continueRead(const xcb_generic_event_t* event) {
    const std::uint8_t type = event->response_type & 0x7f;
    std::shared_ptr<PendingRead> read;
    if (type == XCB_SELECTION_NOTIFY) {
        const auto* notify = as<xcb_selection_notify_event_t>(event);
        if (notify->requestor != x_.window() || notify->selection != clipboard_) {
            return false;
        }
        // A refusal names no property: it answers the oldest read of that target.
        for (const auto& [property, pending] : reads_) {
            if (!pending->incremental && pending->target == notify->target &&
                (notify->property == XCB_NONE || notify->property == property)) {
                read = pending;
                break;
            }
        }
        if (!read) {
            return false;
        }
        if (notify->property == XCB_NONE) {
            finishRead(read, std::nullopt);
            return true;
        }
        std::optional<XcbConnection::Property> first = x_.property(x_.window(), read->property, true);
        if (!first) {
            finishRead(read, std::nullopt);
        } else if (first->type == x_.atom("INCR")) {
            // Incremental transfer: each deletion of the property asks for the next chunk; an
            // empty chunk ends it.
            read->incremental = true;
        } else {
            finishRead(read, std::move(first->bytes));
        }
        return true;
    }
    if (type == XCB_PROPERTY_NOTIFY) {
        const auto* notify = as<xcb_property_notify_event_t>(event);
        auto it = reads_.find(notify->atom);
        if (notify->window != x_.window() || notify->state != XCB_PROPERTY_NEW_VALUE || it == reads_.end() ||
            !it->second->incremental) {
            return false;
        }
        read = it->second;
        std::optional<XcbConnection::Property> part = x_.property(x_.window(), read->property, true);
        if (!part) {
            finishRead(read, std::nullopt);
        } else if (part->bytes.isEmpty()) {
            finishRead(read, std::move(read->bytes));
        } else {
            read->bytes += part->bytes;
        }
        return true;
    }
    return false;
}

int X11Pasteboard::itemCount() const {
    sync();
    if (owned_) {
        return owned_->values.empty() ? 0 : 1;
    }
    return x_.selectionOwner(clipboard_) != XCB_NONE ? 1 : 0;
}

std::vector<QString> X11Pasteboard::types(int index) const {
    return runUntilDone(const_cast<X11Pasteboard*>(this)->typesAsync(index));
}

std::optional<QByteArray> X11Pasteboard::data(int index, const QString& type) const {
    return runUntilDone(const_cast<X11Pasteboard*>(this)->dataAsync(index, type));
}

std::optional<QString> X11Pasteboard::string() const {
    return runUntilDone(const_cast<X11Pasteboard*>(this)->stringAsync());
}

QCoro::Task<std::vector<QString>> X11Pasteboard::typesAsync(int index) {
    if (index != 0) {
        co_return std::vector<QString>{};
    }
    sync();
    if (owned_) {
        std::vector<QString> names;
        for (const auto& value : owned_->values) {
            names.push_back(value.first);
        }
        co_return names;
    }
    const std::int64_t count = changeCount_;
    std::optional<QByteArray> list;
    if (!cache().targets) {
        list = co_await convert(x_.atom("TARGETS"));
    }
    ReadCache& entry = cache();
    if (!entry.targets && entry.count == count) {
        std::vector<QString> names;
        const auto atoms = list ? static_cast<std::size_t>(list->size()) / sizeof(xcb_atom_t) : 0;
        for (std::size_t i = 0; i < atoms; ++i) {
            xcb_atom_t target = XCB_NONE;
            std::memcpy(&target, list->constData() + i * sizeof(xcb_atom_t), sizeof(target));
            const QString name = x_.atomName(target);
            if (!name.isEmpty() && !isPseudoTarget(name) &&
                std::find(names.begin(), names.end(), name) == names.end()) {
                names.push_back(name);
            }
        }
        entry.targets = std::move(names);
    }
    co_return entry.targets.value_or(std::vector<QString>{});
}

QCoro::Task<std::optional<QByteArray>> X11Pasteboard::dataAsync(int index, QString type) {
    if (index != 0 || isPseudoTarget(type)) {
        co_return std::nullopt;
    }
    sync();
    if (owned_) {
        for (const auto& [name, bytes] : owned_->values) {
            if (name == type) {
                co_return bytes;
            }
        }
        co_return std::nullopt;
    }
    const std::int64_t count = changeCount_;
    if (auto it = cache().data.find(type); it != cache_.data.end()) {
        co_return it->second;
    }
    std::optional<QByteArray> bytes = co_await convert(x_.atom(type));
    // Kept only while the clipboard still holds what was read.
    if (cache().count == count) {
        cache_.data.emplace(type, bytes);
    }
    co_return bytes;
}

QCoro::Task<std::optional<QString>> X11Pasteboard::stringAsync() {
    sync();
    if (owned_) {
        for (const QString& type : {utf8String, QStringLiteral("text/plain;charset=utf-8")}) {
            for (const auto& [name, bytes] : owned_->values) {
                if (name == type) {
                    co_return QString::fromUtf8(bytes);
                }
            }
        }
        co_return std::nullopt;
    }
    if (std::optional<QByteArray> utf8 = co_await dataAsync(0, utf8String)) {
        co_return QString::fromUtf8(*utf8);
    }
    if (std::optional<QByteArray> latin1 = co_await dataAsync(0, QStringLiteral("STRING"))) {
        co_return QString::fromLatin1(*latin1);
    }
    co_return std::nullopt;
}

QString X11Pasteboard::plainTextType() const {
    return utf8String;
}

bool X11Pasteboard::ownsSelection() const {
    sync();
    return owned_.has_value();
}

std::optional<QString> X11Pasteboard::fetchOwnText() {
    sync();
    if (!owned_) {
        return std::nullopt;
    }
    for (const QString& type : {utf8String, QStringLiteral("text/plain;charset=utf-8")}) {
        for (const auto& [name, bytes] : owned_->values) {
            if (name == type) {
                fetched_.insert(owned_->count);
                return QString::fromUtf8(bytes);
            }
        }
    }
    return std::nullopt;
}

bool X11Pasteboard::contentsWereFetched(std::int64_t count) const {
    sync();
    return fetched_.count(count) > 0;
}

// --- writing ---------------------------------------------------------------------------------

bool X11Pasteboard::setOwner(xcb_window_t owner) {
    xcb_connection_t* c = x_.raw();
    const xcb_timestamp_t time = x_.serverTime();
    ownChanges_.insert(time);
    lastOwnTime_ = time;
    const xcb_void_cookie_t request = xcb_set_selection_owner(c, owner, clipboard_, time);
    const bool taken = x_.selectionOwner(clipboard_) == owner;
    lastOwnerRequest_ = request.sequence;
    if (!taken) {
        // The server ignored the request (an older time stamp): no report will come for it.
        if (auto it = ownChanges_.find(time); it != ownChanges_.end()) {
            ownChanges_.erase(it);
        }
        return false;
    }
    ++changeCount_;
    retire(request.sequence);
    return true;
}

void X11Pasteboard::retire(std::uint32_t until) {
    if (!owned_) {
        return;
    }
    owned_->until = until;
    retired_.push_back(std::move(*owned_));
    owned_.reset();
    while (retired_.size() > retiredKept) {
        retired_.pop_front();
    }
}

void X11Pasteboard::clearContents() {
    sync();
    const bool hasOwner = x_.selectionOwner(clipboard_) != XCB_NONE;
    if (!hasOwner || !setOwner(XCB_NONE)) {
        ++changeCount_;
    }
    owned_.reset();
}

void X11Pasteboard::prepareForNewLocalContents() {
    // X11 has no host-only announcement, and clearing here would leave the user with an empty
    // clipboard if the program died before restoring it: the selection is left to its owner and
    // the next write or the editor's copy raises the change count.
    sync();
}

bool X11Pasteboard::writeItems(const std::vector<PasteboardItem>& items) {
    std::vector<std::pair<QString, QByteArray>> values;
    for (const PasteboardItem& item : items) {
        for (const auto& value : item.values) {
            const bool known = std::any_of(values.begin(), values.end(),
                                           [&](const auto& v) { return v.first == value.first; });
            if (!known && !isPseudoTarget(value.first) && !value.first.isEmpty()) {
                values.push_back(value);
            }
        }
    }
    if (values.empty()) {
        clearContents();
        return true;
    }
    const auto has = [&](const QString& type) {
        return std::any_of(values.begin(), values.end(), [&](const auto& v) { return v.first == type; });
    };
    if (has(concealedMarker) && !has(passwordManagerHint)) {
        values.emplace_back(passwordManagerHint, QByteArrayLiteral("secret"));
    }
    const bool transient = has(transientMarker);
    sync();
    if (!setOwner(x_.window())) {
        return false;
    }
    owned_ = Owned{std::move(values), changeCount_, lastOwnTime_, transient, lastOwnerRequest_, std::nullopt};
    return true;
}

// --- events ----------------------------------------------------------------------------------

bool X11Pasteboard::handleEvent(const xcb_generic_event_t* event) {
    if (continueRead(event)) {
        return true;
    }
    const std::uint8_t type = event->response_type & 0x7f;
    if (xfixesEvent_ != 0 && type == xfixesEvent_ + XCB_XFIXES_SELECTION_NOTIFY) {
        onOwnerChanged(event);
        return true;
    }
    switch (type) {
    case XCB_SELECTION_REQUEST: {
        const auto* request = as<xcb_selection_request_event_t>(event);
        if (request->selection != clipboard_) {
            return false;
        }
        serveRequest(*request, event->full_sequence);
        return true;
    }
    case XCB_SELECTION_CLEAR: {
        if (as<xcb_selection_clear_event_t>(event)->selection != clipboard_) {
            return false;
        }
        // The clear may be stale (we took the selection back since): ask who owns it now.
        if (x_.selectionOwner(clipboard_) != x_.window()) {
            // Someone else owns it now; requests already sent to us still get what they asked for.
            retire(event->full_sequence);
        }
        return true;
    }
    case XCB_PROPERTY_NOTIFY: {
        const auto* notify = as<xcb_property_notify_event_t>(event);
        if (notify->state != XCB_PROPERTY_DELETE) {
            return false;
        }
        continueTransfer(notify->window, notify->atom);
        return false;
    }
    default:
        return false;
    }
}

void X11Pasteboard::onOwnerChanged(const xcb_generic_event_t* event) {
    const auto* notify = as<xcb_xfixes_selection_notify_event_t>(event);
    if (notify->selection != clipboard_) {
        return;
    }
    if (notify->subtype == XCB_XFIXES_SELECTION_EVENT_SET_SELECTION_OWNER &&
        (notify->owner == x_.window() || notify->owner == XCB_NONE)) {
        if (auto it = ownChanges_.find(notify->selection_timestamp); it != ownChanges_.end()) {
            ownChanges_.erase(it); // counted when we made the change
            return;
        }
    }
    ++changeCount_;
}

const X11Pasteboard::Owned* X11Pasteboard::addressedOwnership(std::uint32_t sequence) const {
    // The server made the request after processing our request `sequence`: it was addressed to the
    // ownership that had begun by then and not yet ended.
    const auto covers = [sequence](const Owned& owned) {
        return owned.since <= sequence && (!owned.until || sequence < *owned.until);
    };
    if (owned_ && covers(*owned_)) {
        return &*owned_;
    }
    for (auto it = retired_.rbegin(); it != retired_.rend(); ++it) {
        if (covers(*it)) {
            return &*it;
        }
    }
    return nullptr;
}

void X11Pasteboard::serveRequest(const xcb_selection_request_event_t& request, std::uint32_t sequence) {
    ++requestsServed_;
    const xcb_atom_t property = request.property == XCB_NONE ? request.target : request.property;
    const Owned* addressed = addressedOwnership(sequence);
    const bool current = addressed && (request.time == XCB_CURRENT_TIME || request.time >= addressed->time);
    const bool served = current && request.owner == x_.window() &&
                        serveTarget(*addressed, request.requestor, property, request.target);

    xcb_selection_notify_event_t reply{};
    reply.response_type = XCB_SELECTION_NOTIFY;
    reply.time = request.time;
    reply.requestor = request.requestor;
    reply.selection = request.selection;
    reply.target = request.target;
    reply.property = served ? property : XCB_NONE;
    char buffer[32] = {};
    std::memcpy(buffer, &reply, sizeof(reply));
    xcb_send_event(x_.raw(), 0, request.requestor, XCB_EVENT_MASK_NO_EVENT, buffer);
    xcb_flush(x_.raw());
}

bool X11Pasteboard::serveTarget(const Owned& owned, xcb_window_t requestor, xcb_atom_t property,
                                xcb_atom_t target) {
    xcb_connection_t* c = x_.raw();
    const QString name = x_.atomName(target);
    if (name == QLatin1String("TARGETS")) {
        std::vector<xcb_atom_t> atoms{x_.atom("TARGETS"), x_.atom("TIMESTAMP")};
        for (const auto& value : owned.values) {
            atoms.push_back(x_.atom(value.first));
        }
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_ATOM, 32,
                            static_cast<std::uint32_t>(atoms.size()), atoms.data());
        return true;
    }
    if (name == QLatin1String("TIMESTAMP")) {
        const std::uint32_t time = owned.time;
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_INTEGER, 32, 1, &time);
        return true;
    }
    auto it = std::find_if(owned.values.begin(), owned.values.end(),
                           [&](const auto& value) { return value.first == name; });
    if (it == owned.values.end()) {
        return false;
    }
    const QByteArray& bytes = it->second;
    fetched_.insert(owned.count);
    const qsizetype largest =
        std::min<qsizetype>(256 * 1024, qsizetype(xcb_get_maximum_request_length(c)) * 4 - 64);
    if (bytes.size() <= largest) {
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, target, 8,
                            static_cast<std::uint32_t>(bytes.size()), bytes.constData());
        return true;
    }
    // Too large for one request: announce an incremental transfer; the requestor's deletions of
    // the property pull the chunks (continueTransfer).
    const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_change_window_attributes(c, requestor, XCB_CW_EVENT_MASK, &events);
    const std::uint32_t size = static_cast<std::uint32_t>(bytes.size());
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, x_.atom("INCR"), 32, 1, &size);
    transfers_.push_back(OutgoingTransfer{requestor, property, target, bytes, 0, nowMs()});
    transferSweep_.start();
    return true;
}

void X11Pasteboard::dropAbandonedTransfers() {
    const qint64 now = nowMs();
    const auto abandoned = [&](const OutgoingTransfer& transfer) {
        return now - transfer.lastActivityMs >= abandonedTransferMs;
    };
    for (const OutgoingTransfer& transfer : transfers_) {
        if (abandoned(transfer)) {
            // The window may be gone already; the error that then comes back is harmless.
            const std::uint32_t none = XCB_EVENT_MASK_NO_EVENT;
            xcb_change_window_attributes(x_.raw(), transfer.requestor, XCB_CW_EVENT_MASK, &none);
        }
    }
    transfers_.erase(std::remove_if(transfers_.begin(), transfers_.end(), abandoned), transfers_.end());
    xcb_flush(x_.raw());
    if (transfers_.empty()) {
        transferSweep_.stop();
    }
}

void X11Pasteboard::continueTransfer(xcb_window_t window, xcb_atom_t property) {
    auto it = std::find_if(transfers_.begin(), transfers_.end(), [&](const OutgoingTransfer& transfer) {
        return transfer.requestor == window && transfer.property == property;
    });
    if (it == transfers_.end()) {
        return;
    }
    xcb_connection_t* c = x_.raw();
    const qsizetype chunk = std::min<qsizetype>(64 * 1024, it->bytes.size() - it->offset);
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, property, it->type, 8,
                        static_cast<std::uint32_t>(chunk), it->bytes.constData() + it->offset);
    ++requestsServed_;
    if (chunk == 0) {
        // The empty chunk ends the transfer.
        const std::uint32_t none = XCB_EVENT_MASK_NO_EVENT;
        xcb_change_window_attributes(c, window, XCB_CW_EVENT_MASK, &none);
        transfers_.erase(it);
    } else {
        it->offset += chunk;
        it->lastActivityMs = nowMs();
    }
    xcb_flush(c);
}

void X11Pasteboard::handOverToClipboardManager() {
    xcb_connection_t* c = x_.raw();
    const xcb_atom_t manager = x_.atom("CLIPBOARD_MANAGER");
    if (x_.selectionOwner(manager) == XCB_NONE) {
        return;
    }
    const xcb_atom_t saveTargets = x_.atom("SAVE_TARGETS");
    xcb_convert_selection(c, x_.window(), manager, saveTargets, XCB_NONE, XCB_CURRENT_TIME);
    // While waiting, our listener keeps serving the manager's requests for the data. Giving up
    // while it still copies would lose the user's clipboard with us.
    QElapsedTimer sinceStart;
    sinceStart.start();
    for (;;) {
        const std::uint64_t servedBefore = requestsServed_;
        const int wait =
            static_cast<int>(std::min<qint64>(handOverQuietMs, handOverCapMs - sinceStart.elapsed()));
        if (wait <= 0) {
            return;
        }
        const XcbReply<xcb_generic_event_t> answer(x_.waitForEvent(
            [&](const xcb_generic_event_t* e) {
                return (e->response_type & 0x7f) == XCB_SELECTION_NOTIFY &&
                       as<xcb_selection_notify_event_t>(e)->selection == manager;
            },
            wait));
        if (answer || xcb_connection_has_error(c) || requestsServed_ == servedBefore) {
            return;
        }
    }
}

} // namespace parlune::x11
