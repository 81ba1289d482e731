#include "platform/wayland/WaylandConnection.h"

#include "core/async/Continuation.h"
#include "core/async/MainThread.h"

#include <QMetaObject>
#include <QSemaphore>
#include <QSocketNotifier>
#include <QTimer>

#include <wayland-client.h>

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <utility>

namespace parlune::wayland {

namespace {

void onGlobal(void* data, wl_registry*, std::uint32_t name, const char* interface, std::uint32_t version) {
    static_cast<std::vector<WaylandConnection::Global>*>(data)->push_back(
        {name, QString::fromLatin1(interface), version});
}

void onGlobalRemove(void*, wl_registry*, std::uint32_t) {}

const wl_registry_listener registryListener{onGlobal, onGlobalRemove};

QString displayName() {
    return qEnvironmentVariable("WAYLAND_DISPLAY", QStringLiteral("wayland-0"));
}

} // namespace

QCoro::Task<WaylandConnection::Opened> WaylandConnection::open(int timeoutMs) {
    auto connection = std::unique_ptr<WaylandConnection>(new WaylandConnection());
    Continuation<QString> listed;
    connection->post([raw = connection.get(), listed] {
        raw->connectOnWorker([listed](QString problem) {
            postToMainThread([listed, problem]() mutable { listed.resume(problem); });
        });
    });
    QTimer::singleShot(timeoutMs, [listed, timeoutMs]() mutable {
        listed.resume(QStringLiteral("The Wayland compositor (WAYLAND_DISPLAY=%1) accepted Parlune's "
                                     "connection but did not answer within %2 s.")
                          .arg(displayName())
                          .arg(timeoutMs / 1000.0));
    });
    const QString problem = co_await listed.wait();
    if (!problem.isEmpty()) {
        co_return problem;
    }
    co_return std::move(connection);
}

WaylandConnection::WaylandConnection() {
    thread_.setObjectName(QStringLiteral("wayland"));
    thread_.start();
    worker_ = std::make_unique<QObject>();
    worker_->moveToThread(&thread_);
}

void WaylandConnection::connectOnWorker(std::function<void(QString)> listed) {
    // A reader that went away must not kill the program while we write clipboard data to it.
    sigset_t pipe;
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipe, nullptr);
    display_ = wl_display_connect(nullptr);
    if (!display_) {
        listed(QStringLiteral("Parlune could not connect to the Wayland compositor (WAYLAND_DISPLAY=%1).")
                   .arg(displayName()));
        return;
    }
    listed_ = std::move(listed);
    registry_ = wl_display_get_registry(display_);
    wl_registry_add_listener(registry_, &registryListener, &announced_);
    static const wl_callback_listener listedListener{onListed};
    listing_ = wl_display_sync(display_);
    wl_callback_add_listener(listing_, &listedListener, this);
    // Events are read only when they are there: the worker never waits on the compositor either.
    notifier_ = new QSocketNotifier(wl_display_get_fd(display_), QSocketNotifier::Read, worker_.get());
    QObject::connect(notifier_, &QSocketNotifier::activated, [this] { readEvents(); });
}

void WaylandConnection::onListed(void* data, wl_callback* callback, std::uint32_t) {
    auto* self = static_cast<WaylandConnection*>(data);
    wl_callback_destroy(callback);
    self->listing_ = nullptr;
    self->globals_ = self->announced_;
    self->seat_ = static_cast<wl_seat*>(self->bind("wl_seat", &wl_seat_interface, 1));
    if (auto listed = std::exchange(self->listed_, nullptr)) {
        listed(QString());
    }
}

WaylandConnection::~WaylandConnection() {
    if (worker_) {
        postAndWait([this] {
            delete notifier_;
            notifier_ = nullptr;
            if (listing_) {
                wl_callback_destroy(listing_);
            }
            if (seat_) {
                wl_proxy_destroy(reinterpret_cast<wl_proxy*>(seat_));
            }
            if (registry_) {
                wl_registry_destroy(registry_);
            }
            if (display_) {
                wl_display_flush(display_);
            }
        });
    }
    thread_.quit();
    thread_.wait();
    worker_.reset();
    if (display_) {
        wl_display_disconnect(display_);
    }
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
    return !display_ || wl_display_get_error(display_) != 0;
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
    if (!display_) {
        return;
    }
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
        if (auto listed = std::exchange(listed_, nullptr)) {
            listed(QStringLiteral("The Wayland compositor (WAYLAND_DISPLAY=%1) closed Parlune's connection "
                                  "before listing what it offers.")
                       .arg(displayName()));
        }
        return;
    }
    wl_display_flush(display_);
}

} // namespace parlune::wayland
