#include "platform/wayland/WaylandConnection.h"

#include <QMetaObject>
#include <QSemaphore>
#include <QSocketNotifier>

#include <wayland-client.h>

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstring>

namespace parlune::wayland {

namespace {

void onGlobal(void* data, wl_registry*, std::uint32_t name, const char* interface, std::uint32_t version) {
    static_cast<std::vector<WaylandConnection::Global>*>(data)->push_back(
        {name, QString::fromLatin1(interface), version});
}

void onGlobalRemove(void*, wl_registry*, std::uint32_t) {}

const wl_registry_listener registryListener{onGlobal, onGlobalRemove};

} // namespace

std::unique_ptr<WaylandConnection> WaylandConnection::open() {
    wl_display* display = wl_display_connect(nullptr);
    if (!display) {
        return nullptr;
    }
    auto connection = std::unique_ptr<WaylandConnection>(new WaylandConnection(display));
    if (!connection->start()) {
        return nullptr;
    }
    return connection;
}

WaylandConnection::WaylandConnection(wl_display* display) : display_(display) {}

bool WaylandConnection::start() {
    thread_.setObjectName(QStringLiteral("wayland"));
    thread_.start();
    worker_ = std::make_unique<QObject>();
    worker_->moveToThread(&thread_);
    // The guard outlives a timed-out wait: the worker may still finish after open() gave up.
    auto listed = std::make_shared<QSemaphore>();
    auto globals = std::make_shared<std::vector<Global>>();
    post([this, listed, globals] {
        // A reader that went away must not kill the program while we write clipboard data to it.
        sigset_t pipe;
        sigemptyset(&pipe);
        sigaddset(&pipe, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
        registry_ = wl_display_get_registry(display_);
        wl_registry_add_listener(registry_, &registryListener, globals.get());
        if (wl_display_roundtrip(display_) >= 0) {
            globals_ = *globals;
            seat_ = static_cast<wl_seat*>(bind("wl_seat", &wl_seat_interface, 1));
            notifier_ =
                new QSocketNotifier(wl_display_get_fd(display_), QSocketNotifier::Read, worker_.get());
            QObject::connect(notifier_, &QSocketNotifier::activated, [this] { readEvents(); });
        }
        listed->release();
    });
    return listed->tryAcquire(1, startTimeoutMs) && !isBroken() && registry_;
}

WaylandConnection::~WaylandConnection() {
    if (worker_) {
        postAndWait([this] {
            delete notifier_;
            notifier_ = nullptr;
            if (seat_) {
                wl_proxy_destroy(reinterpret_cast<wl_proxy*>(seat_));
            }
            if (registry_) {
                wl_registry_destroy(registry_);
            }
            wl_display_flush(display_);
        });
    }
    thread_.quit();
    thread_.wait();
    worker_.reset();
    wl_display_disconnect(display_);
}

std::optional<WaylandConnection::Global> WaylandConnection::global(const char* interface) const {
    const auto it = std::find_if(globals_.begin(), globals_.end(), [&](const Global& global) {
        return global.interface == QLatin1String(interface);
    });
    if (it == globals_.end()) {
        return std::nullopt;
    }
    return *it;
}

void WaylandConnection::post(std::function<void()> work) {
    QMetaObject::invokeMethod(
        worker_.get(),
        [this, work = std::move(work)] {
            work();
            flush();
        },
        Qt::QueuedConnection);
}

void WaylandConnection::postAndWait(std::function<void()> work) {
    if (QThread::currentThread() == &thread_) {
        work();
        return;
    }
    QSemaphore done;
    QMetaObject::invokeMethod(
        worker_.get(),
        [&] {
            work();
            if (display_) {
                wl_display_flush(display_);
            }
            done.release();
        },
        Qt::QueuedConnection);
    done.acquire();
}

bool WaylandConnection::isBroken() const {
    return wl_display_get_error(display_) != 0;
}

void* WaylandConnection::bind(const char* interface, const wl_interface* description,
                              std::uint32_t newestKnown) {
    const std::optional<Global> offered = global(interface);
    if (!offered || !registry_) {
        return nullptr;
    }
    return wl_registry_bind(registry_, offered->name, description, std::min(offered->version, newestKnown));
}

void WaylandConnection::flush() {
    wl_display_dispatch_pending(display_);
    wl_display_flush(display_);
}

void WaylandConnection::readEvents() {
    // The notifier said the socket is readable, so reading does not wait.
    while (wl_display_prepare_read(display_) != 0) {
        wl_display_dispatch_pending(display_);
    }
    if (wl_display_read_events(display_) < 0 || wl_display_dispatch_pending(display_) < 0) {
        // The compositor is gone or refused us: stop listening, the ports report it.
        notifier_->setEnabled(false);
        return;
    }
    wl_display_flush(display_);
}

} // namespace parlune::wayland
