#include "platform/x11/XcbConnection.h"

#include <QElapsedTimer>
#include <QSocketNotifier>

#include <poll.h>

#include <cstdlib>
#include <string>

namespace parlune::x11 {

std::unique_ptr<XcbConnection> XcbConnection::open() {
    int screenNumber = 0;
    xcb_connection_t* connection = xcb_connect(nullptr, &screenNumber);
    if (!connection || xcb_connection_has_error(connection)) {
        if (connection) {
            xcb_disconnect(connection);
        }
        return nullptr;
    }
    xcb_screen_iterator_t it = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screenNumber && it.rem; ++i) {
        xcb_screen_next(&it);
    }
    const xcb_window_t root = it.data->root;
    const xcb_window_t window = xcb_generate_id(connection);
    const std::uint32_t eventMask = XCB_EVENT_MASK_PROPERTY_CHANGE;
    xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, root, -1, -1, 1, 1, 0,
                      XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &eventMask);
    xcb_flush(connection);
    return std::unique_ptr<XcbConnection>(new XcbConnection(connection, root, window));
}

XcbConnection::XcbConnection(xcb_connection_t* connection, xcb_window_t root, xcb_window_t window)
    : connection_(connection), root_(root), window_(window),
      notifier_(
          std::make_unique<QSocketNotifier>(xcb_get_file_descriptor(connection), QSocketNotifier::Read)) {
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, notifier_.get(),
                     [this] { dispatchPending(); });
}

XcbConnection::~XcbConnection() {
    notifier_.reset();
    xcb_destroy_window(connection_, window_);
    xcb_disconnect(connection_);
}

xcb_atom_t XcbConnection::atom(const char* name) {
    auto it = atoms_.find(name);
    if (it != atoms_.end()) {
        return it->second;
    }
    const std::string key(name);
    const XcbReply<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
        connection_, xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(key.size()), key.c_str()),
        nullptr));
    const xcb_atom_t value = reply ? reply->atom : XCB_NONE;
    scheduleDispatch();
    if (value != XCB_NONE) {
        atoms_.emplace(key, value);
        names_.emplace(value, QString::fromStdString(key));
    }
    return value;
}

xcb_atom_t XcbConnection::atom(const QString& name) {
    return atom(name.toUtf8().constData());
}

QString XcbConnection::atomName(xcb_atom_t value) {
    auto it = names_.find(value);
    if (it != names_.end()) {
        return it->second;
    }
    const XcbReply<xcb_get_atom_name_reply_t> reply(
        xcb_get_atom_name_reply(connection_, xcb_get_atom_name(connection_, value), nullptr));
    if (!reply) {
        return {};
    }
    QString name =
        QString::fromUtf8(xcb_get_atom_name_name(reply.get()), xcb_get_atom_name_name_length(reply.get()));
    scheduleDispatch();
    names_.emplace(value, name);
    atoms_.emplace(name.toStdString(), value);
    return name;
}

int XcbConnection::addListener(Listener listener) {
    const int id = nextListener_++;
    listeners_.emplace(id, std::move(listener));
    return id;
}

void XcbConnection::removeListener(int id) {
    listeners_.erase(id);
}

void XcbConnection::dispatch(xcb_generic_event_t* event) {
    // Copy: a listener may add or remove listeners.
    auto listeners = listeners_;
    for (auto& [id, listener] : listeners) {
        if (listeners_.count(id) && listener(event)) {
            break;
        }
    }
    std::free(event);
}

void XcbConnection::scheduleDispatch() {
    // Replies can pull events into xcb's queue without the socket becoming readable again.
    if (dispatchScheduled_) {
        return;
    }
    dispatchScheduled_ = true;
    QMetaObject::invokeMethod(
        notifier_.get(),
        [this] {
            dispatchScheduled_ = false;
            dispatchPending();
        },
        Qt::QueuedConnection);
}

void XcbConnection::dispatchPending() {
    while (xcb_generic_event_t* event = xcb_poll_for_event(connection_)) {
        dispatch(event);
    }
}

xcb_generic_event_t* XcbConnection::waitForEvent(const std::function<bool(const xcb_generic_event_t*)>& match,
                                                 int timeoutMs) {
    xcb_flush(connection_);
    QElapsedTimer timer;
    timer.start();
    for (;;) {
        while (xcb_generic_event_t* event = xcb_poll_for_event(connection_)) {
            if (match(event)) {
                return event;
            }
            dispatch(event);
        }
        if (xcb_connection_has_error(connection_)) {
            return nullptr;
        }
        const qint64 left = timeoutMs - timer.elapsed();
        if (left <= 0) {
            return nullptr;
        }
        pollfd descriptor{xcb_get_file_descriptor(connection_), POLLIN, 0};
        ::poll(&descriptor, 1, static_cast<int>(left));
    }
}

xcb_timestamp_t XcbConnection::serverTime() {
    const xcb_atom_t name = atom("_PARLUNE_TIME");
    xcb_change_property(connection_, XCB_PROP_MODE_APPEND, window_, name, XCB_ATOM_STRING, 8, 0, nullptr);
    xcb_generic_event_t* event = waitForEvent(
        [&](const xcb_generic_event_t* e) {
            if ((e->response_type & 0x7f) != XCB_PROPERTY_NOTIFY) {
                return false;
            }
            const auto* p = reinterpret_cast<const xcb_property_notify_event_t*>(e);
            return p->window == window_ && p->atom == name;
        },
        500);
    if (!event) {
        return XCB_CURRENT_TIME;
    }
    const xcb_timestamp_t time = reinterpret_cast<xcb_property_notify_event_t*>(event)->time;
    std::free(event);
    return time;
}

std::optional<XcbConnection::Property> XcbConnection::property(xcb_window_t window, xcb_atom_t name,
                                                               bool deleteAfter) {
    // Length in 32-bit units; large enough for any property we read in one request.
    constexpr std::uint32_t maxLength = 0x1fffffff;
    const XcbReply<xcb_get_property_reply_t> reply(
        xcb_get_property_reply(connection_,
                               xcb_get_property(connection_, deleteAfter ? 1 : 0, window, name,
                                                XCB_GET_PROPERTY_TYPE_ANY, 0, maxLength),
                               nullptr));
    if (!reply || reply->type == XCB_NONE) {
        return std::nullopt;
    }
    Property result;
    result.type = reply->type;
    result.format = reply->format;
    result.bytes = QByteArray(static_cast<const char*>(xcb_get_property_value(reply.get())),
                              xcb_get_property_value_length(reply.get()));
    scheduleDispatch();
    return result;
}

xcb_window_t XcbConnection::selectionOwner(xcb_atom_t selection) {
    const XcbReply<xcb_get_selection_owner_reply_t> reply(
        xcb_get_selection_owner_reply(connection_, xcb_get_selection_owner(connection_, selection), nullptr));
    scheduleDispatch();
    return reply ? reply->owner : XCB_NONE;
}

} // namespace parlune::x11
