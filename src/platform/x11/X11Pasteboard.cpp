#include "platform/x11/X11Pasteboard.h"

#include "platform/x11/XcbConnection.h"

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
constexpr int handOverTimeoutMs = 2000;

template <typename Event>
const Event* as(const xcb_generic_event_t* event) {
    return reinterpret_cast<const Event*>(event);
}

} // namespace

bool X11Pasteboard::isPseudoTarget(const QString& target) {
    static const QString pseudo[] = {QStringLiteral("TARGETS"),      QStringLiteral("MULTIPLE"),
                                     QStringLiteral("TIMESTAMP"),    QStringLiteral("SAVE_TARGETS"),
                                     QStringLiteral("DELETE"),       QStringLiteral("INSERT_SELECTION"),
                                     QStringLiteral("INSERT_PROPERTY"), QStringLiteral("GTK_TEXT_BUFFER_CONTENTS")};
    return std::find(std::begin(pseudo), std::end(pseudo), target) != std::end(pseudo);
}

X11Pasteboard::X11Pasteboard(XcbConnection& connection) : x_(connection), clipboard_(connection.atom("CLIPBOARD")) {
    xcb_connection_t* c = x_.raw();
    const xcb_query_extension_reply_t* xfixes = xcb_get_extension_data(c, &xcb_xfixes_id);
    if (xfixes && xfixes->present) {
        auto* version = xcb_xfixes_query_version_reply(c, xcb_xfixes_query_version(c, 5, 0), nullptr);
        if (version) {
            xfixesEvent_ = xfixes->first_event;
            xcb_xfixes_select_selection_input(c, x_.window(), clipboard_,
                                              XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER |
                                                  XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY |
                                                  XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE);
            xcb_flush(c);
        }
        std::free(version);
    }
    listener_ = x_.addListener([this](const xcb_generic_event_t* event) { return handleEvent(event); });
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
    xcb_flush(x_.raw());
}

// --- reading ---------------------------------------------------------------------------------

void X11Pasteboard::sync() const {
    // A round trip: every event the server sent before its reply is then in our queue.
    auto* reply = xcb_get_selection_owner_reply(x_.raw(), xcb_get_selection_owner(x_.raw(), clipboard_), nullptr);
    std::free(reply);
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

std::optional<QByteArray> X11Pasteboard::convert(xcb_atom_t selection, xcb_atom_t target) const {
    xcb_connection_t* c = x_.raw();
    const xcb_window_t window = x_.window();
    const xcb_atom_t property = x_.atom("_PARLUNE_SELECTION");
    xcb_delete_property(c, window, property);
    xcb_convert_selection(c, window, selection, target, property, XCB_CURRENT_TIME);
    xcb_generic_event_t* event = x_.waitForEvent(
        [&](const xcb_generic_event_t* e) {
            if ((e->response_type & 0x7f) != XCB_SELECTION_NOTIFY) {
                return false;
            }
            const auto* n = as<xcb_selection_notify_event_t>(e);
            return n->requestor == window && n->selection == selection && n->target == target;
        },
        readTimeoutMs);
    if (!event) {
        return std::nullopt;
    }
    const bool refused = as<xcb_selection_notify_event_t>(event)->property == XCB_NONE;
    std::free(event);
    if (refused) {
        return std::nullopt;
    }
    std::optional<XcbConnection::Property> first = x_.property(window, property, true);
    if (!first) {
        return std::nullopt;
    }
    if (first->type != x_.atom("INCR")) {
        return first->bytes;
    }
    // Incremental transfer: each deletion of the property asks for the next chunk; an empty
    // chunk ends it.
    QByteArray bytes;
    for (;;) {
        xcb_generic_event_t* chunk = x_.waitForEvent(
            [&](const xcb_generic_event_t* e) {
                if ((e->response_type & 0x7f) != XCB_PROPERTY_NOTIFY) {
                    return false;
                }
                const auto* p = as<xcb_property_notify_event_t>(e);
                return p->window == window && p->atom == property && p->state == XCB_PROPERTY_NEW_VALUE;
            },
            readTimeoutMs);
        if (!chunk) {
            return std::nullopt;
        }
        std::free(chunk);
        std::optional<XcbConnection::Property> part = x_.property(window, property, true);
        if (!part) {
            return std::nullopt;
        }
        if (part->bytes.isEmpty()) {
            return bytes;
        }
        bytes += part->bytes;
    }
}

int X11Pasteboard::itemCount() const {
    sync();
    if (owned_) {
        return owned_->values.empty() ? 0 : 1;
    }
    auto* reply = xcb_get_selection_owner_reply(x_.raw(), xcb_get_selection_owner(x_.raw(), clipboard_), nullptr);
    const bool hasOwner = reply && reply->owner != XCB_NONE;
    std::free(reply);
    x_.scheduleDispatch();
    return hasOwner ? 1 : 0;
}

std::vector<QString> X11Pasteboard::types(int index) const {
    if (index != 0) {
        return {};
    }
    sync();
    if (owned_) {
        std::vector<QString> names;
        for (const auto& value : owned_->values) {
            names.push_back(value.first);
        }
        return names;
    }
    ReadCache& entry = cache();
    if (!entry.targets) {
        std::vector<QString> names;
        if (std::optional<QByteArray> list = convert(clipboard_, x_.atom("TARGETS"))) {
            const auto count = static_cast<std::size_t>(list->size()) / sizeof(xcb_atom_t);
            for (std::size_t i = 0; i < count; ++i) {
                xcb_atom_t target = XCB_NONE;
                std::memcpy(&target, list->constData() + i * sizeof(xcb_atom_t), sizeof(target));
                const QString name = x_.atomName(target);
                if (!name.isEmpty() && !isPseudoTarget(name) &&
                    std::find(names.begin(), names.end(), name) == names.end()) {
                    names.push_back(name);
                }
            }
        }
        entry.targets = std::move(names);
    }
    return *entry.targets;
}

std::optional<QByteArray> X11Pasteboard::data(int index, const QString& type) const {
    if (index != 0 || isPseudoTarget(type)) {
        return std::nullopt;
    }
    sync();
    if (owned_) {
        for (const auto& [name, bytes] : owned_->values) {
            if (name == type) {
                return bytes;
            }
        }
        return std::nullopt;
    }
    ReadCache& entry = cache();
    auto it = entry.data.find(type);
    if (it == entry.data.end()) {
        it = entry.data.emplace(type, convert(clipboard_, x_.atom(type))).first;
    }
    return it->second;
}

std::optional<QString> X11Pasteboard::string() const {
    sync();
    if (owned_) {
        for (const QString& type : {utf8String, QStringLiteral("text/plain;charset=utf-8")}) {
            for (const auto& [name, bytes] : owned_->values) {
                if (name == type) {
                    return QString::fromUtf8(bytes);
                }
            }
        }
        return std::nullopt;
    }
    if (std::optional<QByteArray> utf8 = data(0, utf8String)) {
        return QString::fromUtf8(*utf8);
    }
    if (std::optional<QByteArray> latin1 = data(0, QStringLiteral("STRING"))) {
        return QString::fromLatin1(*latin1);
    }
    return std::nullopt;
}

QString X11Pasteboard::plainTextType() const { return utf8String; }

bool X11Pasteboard::ownsSelection() const {
    sync();
    return owned_.has_value();
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
    xcb_set_selection_owner(c, owner, clipboard_, time);
    auto* reply = xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, clipboard_), nullptr);
    const bool taken = reply && reply->owner == owner;
    std::free(reply);
    x_.scheduleDispatch();
    if (!taken) {
        // The server ignored the request (an older time stamp): no report will come for it.
        if (auto it = ownChanges_.find(time); it != ownChanges_.end()) {
            ownChanges_.erase(it);
        }
        return false;
    }
    ++changeCount_;
    if (owner == XCB_NONE) {
        owned_.reset();
    }
    return true;
}

void X11Pasteboard::clearContents() {
    sync();
    auto* reply = xcb_get_selection_owner_reply(x_.raw(), xcb_get_selection_owner(x_.raw(), clipboard_), nullptr);
    const bool hasOwner = reply && reply->owner != XCB_NONE;
    std::free(reply);
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
    owned_ = Owned{std::move(values), changeCount_, lastOwnTime_, transient};
    return true;
}

// --- events ----------------------------------------------------------------------------------

bool X11Pasteboard::handleEvent(const xcb_generic_event_t* event) {
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
        serveRequest(*request);
        return true;
    }
    case XCB_SELECTION_CLEAR: {
        if (as<xcb_selection_clear_event_t>(event)->selection != clipboard_) {
            return false;
        }
        // The clear may be stale (we took the selection back since): ask who owns it now.
        auto* reply = xcb_get_selection_owner_reply(x_.raw(), xcb_get_selection_owner(x_.raw(), clipboard_), nullptr);
        if (!reply || reply->owner != x_.window()) {
            owned_.reset();
        }
        std::free(reply);
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

void X11Pasteboard::serveRequest(const xcb_selection_request_event_t& request) {
    const xcb_atom_t property = request.property == XCB_NONE ? request.target : request.property;
    const bool current = owned_ && (request.time == XCB_CURRENT_TIME || request.time >= owned_->time);
    const bool served = current && request.owner == x_.window() && serveTarget(request.requestor, property, request.target);

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

bool X11Pasteboard::serveTarget(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t target) {
    xcb_connection_t* c = x_.raw();
    const QString name = x_.atomName(target);
    if (name == QLatin1String("TARGETS")) {
        std::vector<xcb_atom_t> atoms{x_.atom("TARGETS"), x_.atom("TIMESTAMP")};
        for (const auto& value : owned_->values) {
            atoms.push_back(x_.atom(value.first));
        }
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_ATOM, 32,
                            static_cast<std::uint32_t>(atoms.size()), atoms.data());
        return true;
    }
    if (name == QLatin1String("TIMESTAMP")) {
        const std::uint32_t time = owned_->time;
        xcb_change_property(c, XCB_PROP_MODE_REPLACE, requestor, property, XCB_ATOM_INTEGER, 32, 1, &time);
        return true;
    }
    auto it = std::find_if(owned_->values.begin(), owned_->values.end(),
                           [&](const auto& value) { return value.first == name; });
    if (it == owned_->values.end()) {
        return false;
    }
    const QByteArray& bytes = it->second;
    fetched_.insert(owned_->count);
    const qsizetype largest = std::min<qsizetype>(256 * 1024, qsizetype(xcb_get_maximum_request_length(c)) * 4 - 64);
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
    transfers_.push_back(OutgoingTransfer{requestor, property, target, bytes, 0});
    return true;
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
    xcb_change_property(c, XCB_PROP_MODE_REPLACE, window, property, it->type, 8, static_cast<std::uint32_t>(chunk),
                        it->bytes.constData() + it->offset);
    if (chunk == 0) {
        // The empty chunk ends the transfer.
        const std::uint32_t none = XCB_EVENT_MASK_NO_EVENT;
        xcb_change_window_attributes(c, window, XCB_CW_EVENT_MASK, &none);
        transfers_.erase(it);
    } else {
        it->offset += chunk;
    }
    xcb_flush(c);
}

void X11Pasteboard::handOverToClipboardManager() {
    xcb_connection_t* c = x_.raw();
    const xcb_atom_t manager = x_.atom("CLIPBOARD_MANAGER");
    auto* reply = xcb_get_selection_owner_reply(c, xcb_get_selection_owner(c, manager), nullptr);
    const bool present = reply && reply->owner != XCB_NONE;
    std::free(reply);
    if (!present) {
        return;
    }
    const xcb_atom_t saveTargets = x_.atom("SAVE_TARGETS");
    xcb_convert_selection(c, x_.window(), manager, saveTargets, XCB_NONE, XCB_CURRENT_TIME);
    // While waiting, our listener keeps serving the manager's requests for the data.
    xcb_generic_event_t* done = x_.waitForEvent(
        [&](const xcb_generic_event_t* e) {
            return (e->response_type & 0x7f) == XCB_SELECTION_NOTIFY &&
                   as<xcb_selection_notify_event_t>(e)->selection == manager;
        },
        handOverTimeoutMs);
    std::free(done);
}

} // namespace parlune::x11
