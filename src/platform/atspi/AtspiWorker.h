#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

typedef struct _GMainContext GMainContext;

namespace parlune::atspi {

// The one thread that touches libatspi. libatspi keeps process-wide state (its bus connection, the
// cache of remote objects) that is not safe to use from two threads, and its calls wait for the
// other application's answer; so every call, every reference count change of its objects and the
// dispatch of its bus connection happen here, on a private GLib main context, never on the main
// thread. Work is queued with post() from any thread and runs in order.
class AtspiWorker : public std::enable_shared_from_this<AtspiWorker> {
public:
    // Starts the thread, which connects to the accessibility bus before running anything posted.
    static std::shared_ptr<AtspiWorker> start();
    ~AtspiWorker();
    AtspiWorker(const AtspiWorker&) = delete;
    AtspiWorker& operator=(const AtspiWorker&) = delete;

    void post(std::function<void()> work);
    bool isWorkerThread() const { return std::this_thread::get_id() == thread_.get_id(); }
    // Blocks until the connection attempt is over (at most `timeoutMs`); whether the bus answered.
    bool waitForBus(int timeoutMs);

private:
    AtspiWorker() = default;
    void run();
    void drain();
    void adoptApplicationConnections();

    std::thread thread_;
    GMainContext* context_ = nullptr;
    std::atomic<bool> stopping_ = false;
    std::mutex mutex_;
    std::condition_variable started_;
    bool connectionTried_ = false;
    bool busAvailable_ = false;
    std::deque<std::function<void()>> queue_;
};

} // namespace parlune::atspi
