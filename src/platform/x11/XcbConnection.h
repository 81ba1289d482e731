#pragma once

#include <QByteArray>
#include <QString>

#include <xcb/xcb.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <vector>

class QSocketNotifier;

namespace parlune::x11 {

// Owns one reply or event handed out by xcb, which are released with free().
struct XcbFree {
    void operator()(void* pointer) const { std::free(pointer); }
};
template <typename T> using XcbReply = std::unique_ptr<T, XcbFree>;

// This program's own connection to the X server, shared by the clipboard, keyboard and workspace
// ports. Unlike Qt's connection it can wait for one particular event (a selection reply, a
// property change) while every other event keeps being dispatched to the listeners, so a port
// can answer synchronously without ever stalling requests made to this program.
// Main thread only; events are read through a socket notifier on the event loop.
class XcbConnection {
public:
    // Returns a listener id; a listener answers true when it consumed the event.
    using Listener = std::function<bool(const xcb_generic_event_t*)>;

    // Connects to $DISPLAY; null when there is no X server to talk to.
    static std::unique_ptr<XcbConnection> open();
    ~XcbConnection();
    XcbConnection(const XcbConnection&) = delete;
    XcbConnection& operator=(const XcbConnection&) = delete;

    xcb_connection_t* raw() const { return connection_; }
    xcb_window_t root() const { return root_; }
    // An unmapped window of ours, used as selection owner and requestor.
    xcb_window_t window() const { return window_; }

    xcb_atom_t atom(const char* name);
    xcb_atom_t atom(const QString& name);
    QString atomName(xcb_atom_t atom);

    int addListener(Listener listener);
    void removeListener(int id);

    // Dispatches everything already received, without blocking.
    void dispatchPending();
    // Dispatches later on the event loop; call after fetching a reply.
    void scheduleDispatch();
    // The owner of a selection (a round trip); XCB_NONE when nobody holds it or the server did not
    // answer.
    xcb_window_t selectionOwner(xcb_atom_t selection);
    // Reads events until `match` accepts one (returned, caller frees) or `timeoutMs` passes (null).
    // Other events are dispatched as usual while waiting.
    xcb_generic_event_t* waitForEvent(const std::function<bool(const xcb_generic_event_t*)>& match,
                                      int timeoutMs);
    // A server time stamp for ownership requests, taken from a property change on our window.
    xcb_timestamp_t serverTime();

    // A window property as raw bytes and its type; nullopt when absent.
    struct Property {
        xcb_atom_t type = XCB_NONE;
        std::uint8_t format = 0;
        QByteArray bytes;
    };
    std::optional<Property> property(xcb_window_t window, xcb_atom_t name, bool deleteAfter = false);

private:
    XcbConnection(xcb_connection_t* connection, xcb_window_t root, xcb_window_t window);
    void dispatch(xcb_generic_event_t* event);

    xcb_connection_t* connection_;
    xcb_window_t root_;
    xcb_window_t window_;
    std::unique_ptr<QSocketNotifier> notifier_;
    std::map<std::string, xcb_atom_t> atoms_;
    std::map<xcb_atom_t, QString> names_;
    std::map<int, Listener> listeners_;
    int nextListener_ = 1;
    bool dispatchScheduled_ = false;
};

} // namespace parlune::x11
