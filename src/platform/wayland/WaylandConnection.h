#pragma once

#include <QObject>
#include <QString>
#include <QThread>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <variant>
#include <vector>

#include <QCoro/QCoroTask>

struct wl_callback;
struct wl_display;
struct wl_interface;
struct wl_registry;
struct wl_seat;
class QSocketNotifier;

namespace parlune::wayland {

// This program's own connection to the Wayland compositor, owned by a worker thread: every request,
// round trip and event of the ports happens there, so the main thread never waits on the
// compositor. Ports hand work to the worker with post() and answers come back through
// postToMainThread(). Even connecting and the first list of globals happen there: open() awaits
// them without blocking the event loop, and gives up after a timeout when the compositor accepts
// the connection but never answers.
class WaylandConnection {
public:
    struct Global {
        std::uint32_t name = 0;
        QString interface;
        std::uint32_t version = 0;
    };

    static constexpr int startTimeoutMs = 2000;

    // The connection, or the sentence saying why there is none.
    using Opened = std::variant<std::unique_ptr<WaylandConnection>, QString>;
    // Connects to $WAYLAND_DISPLAY and waits, with the event loop running, until the compositor has
    // listed its globals; gives up after `timeoutMs`.
    static QCoro::Task<Opened> open(int timeoutMs = startTimeoutMs);
    ~WaylandConnection();
    WaylandConnection(const WaylandConnection&) = delete;
    WaylandConnection& operator=(const WaylandConnection&) = delete;

    // The compositor's globals at start-up; any thread.
    const std::vector<Global>& globals() const { return globals_; }
    std::optional<Global> global(const char* interface) const;
    bool offers(const char* interface) const { return global(interface).has_value(); }

    // Runs `work` on the worker, then sends what it asked for.
    void post(std::function<void()> work);
    // Runs `work` on the worker and waits for it; only while starting or stopping a port.
    void postAndWait(std::function<void()> work);
    // Whether the compositor closed the connection or refused a request.
    bool isBroken() const;

    // Worker only.
    wl_display* display() const { return display_; }
    wl_seat* seat() const { return seat_; }
    // Binds a global at the highest version both sides know; null when it is not offered.
    void* bind(const char* interface, const wl_interface* description, std::uint32_t newestKnown);
    // Sends what is queued and dispatches what arrived; after a request made outside post().
    void flush();

private:
    WaylandConnection();
    // Worker only: connects and asks for the globals; `listed` gets an empty string once they are
    // in, or the reason they never will be.
    void connectOnWorker(std::function<void(QString)> listed);
    static void onListed(void* data, wl_callback* callback, std::uint32_t time);
    void readEvents();

    wl_display* display_ = nullptr;
    wl_registry* registry_ = nullptr;
    wl_seat* seat_ = nullptr;
    wl_callback* listing_ = nullptr;
    std::function<void(QString)> listed_;
    // Globals as they are announced; copied to globals_ when the first list is complete.
    std::vector<Global> announced_;
    std::vector<Global> globals_;
    QThread thread_;
    // Lives on the worker: the target of posted work and the parent of the socket notifier.
    std::unique_ptr<QObject> worker_;
    QSocketNotifier* notifier_ = nullptr;
};

} // namespace parlune::wayland
