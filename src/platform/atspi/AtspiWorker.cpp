#include "platform/atspi/AtspiWorker.h"

#include <atspi/atspi.h>
// After atspi.h, which brings the GLib and D-Bus declarations it relies on.
#include <atspi/atspi-gmain.h>

#include <chrono>

namespace parlune::atspi {

std::shared_ptr<AtspiWorker> AtspiWorker::start() {
    std::shared_ptr<AtspiWorker> worker(new AtspiWorker());
    worker->context_ = g_main_context_new();
    worker->thread_ = std::thread([raw = worker.get()] { raw->run(); });
    return worker;
}

AtspiWorker::~AtspiWorker() {
    stopping_ = true;
    g_main_context_wakeup(context_);
    if (thread_.joinable()) {
        // The last owner may be a task running here (an element released by its own query).
        if (isWorkerThread()) {
            thread_.detach();
        } else {
            thread_.join();
        }
    }
    g_main_context_unref(context_);
}

void AtspiWorker::run() {
    g_main_context_push_thread_default(context_);
    const int status = atspi_init();
    // 0: connected now, 1: already connected earlier in this process.
    const bool available = status == 0 || status == 1;
    if (available) {
        // The bus connection is dispatched by this thread's context from now on, not by the
        // process's default context (which Qt's event loop runs on the main thread).
        atspi_set_main_context(context_);
        // A hung application costs this thread a bounded wait; the main thread never waits.
        atspi_set_timeout(1000, 5000);
    }
    {
        std::lock_guard lock(mutex_);
        connectionTried_ = true;
        busAvailable_ = available;
    }
    if (available) {
        adoptApplicationConnections();
    }
    started_.notify_all();
    drain();
    while (!stopping_) {
        g_main_context_iteration(context_, TRUE);
    }
    drain(); // whatever was posted while stopping still releases its references here
    g_main_context_pop_thread_default(context_);
}

void AtspiWorker::drain() {
    for (;;) {
        std::function<void()> work;
        {
            std::lock_guard lock(mutex_);
            if (queue_.empty()) {
                return;
            }
            work = std::move(queue_.front());
            queue_.pop_front();
        }
        work();
        if (busAvailable_) {
            adoptApplicationConnections();
        }
    }
}

void AtspiWorker::adoptApplicationConnections() {
    // libatspi opens a private connection to each application that offers one and attaches it to
    // the process's default context, which a GLib-based Qt event loop dispatches on the main
    // thread. Each such connection is moved to this thread's context as soon as it exists.
    AtspiAccessible* desktop = atspi_get_desktop(0);
    if (!desktop) {
        return;
    }
    for (guint i = 0; desktop->children && i < desktop->children->len; ++i) {
        auto* application = static_cast<AtspiAccessible*>(g_ptr_array_index(desktop->children, i));
        AtspiApplication* owner = application ? application->parent.app : nullptr;
        if (owner && owner->bus) {
            atspi_dbus_connection_setup_with_g_main(owner->bus, context_);
        }
    }
    g_object_unref(desktop);
}

void AtspiWorker::post(std::function<void()> work) {
    {
        std::lock_guard lock(mutex_);
        queue_.push_back(std::move(work));
    }
    // An idle source on the worker's context runs the queue in order.
    GSource* source = g_idle_source_new();
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
            static_cast<AtspiWorker*>(data)->drain();
            return G_SOURCE_REMOVE;
        },
        this, nullptr);
    g_source_attach(source, context_);
    g_source_unref(source);
}

bool AtspiWorker::waitForBus(int timeoutMs) {
    std::unique_lock lock(mutex_);
    started_.wait_for(lock, std::chrono::milliseconds(timeoutMs), [this] { return connectionTried_; });
    return busAvailable_;
}

} // namespace parlune::atspi
