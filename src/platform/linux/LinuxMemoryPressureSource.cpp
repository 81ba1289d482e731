#include "platform/linux/LinuxMemoryPressureSource.h"

#include <QSocketNotifier>

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

namespace parlune {

LinuxMemoryPressureSource::LinuxMemoryPressureSource(QString pressureFile, std::vector<Trigger> triggers)
    : file_(std::move(pressureFile)), triggers_(std::move(triggers)) {}

LinuxMemoryPressureSource::~LinuxMemoryPressureSource() {
    cancel();
}

std::vector<LinuxMemoryPressureSource::Trigger> LinuxMemoryPressureSource::defaultTriggers() {
    return {{MemoryPressureLevel::warning, QStringLiteral("some 150000 2000000")},
            {MemoryPressureLevel::critical, QStringLiteral("full 100000 2000000")}};
}

void LinuxMemoryPressureSource::start(std::function<void(MemoryPressureLevel)> handler) {
    cancel();
    handler_ = std::move(handler);
    const QByteArray path = file_.toLocal8Bit();
    for (const Trigger& trigger : triggers_) {
        const int fd = ::open(path.constData(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            break;
        }
        // The kernel wants the trigger with its terminating NUL in one write.
        const QByteArray line = trigger.line.toLatin1();
        if (::write(fd, line.constData(), static_cast<std::size_t>(line.size()) + 1) < 0) {
            ::close(fd);
            break;
        }
        Watch watch{fd, trigger.level, std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Exception)};
        const MemoryPressureLevel level = trigger.level;
        QObject::connect(watch.notifier.get(), &QSocketNotifier::activated, watch.notifier.get(),
                         [this, level, fd] {
                             pollfd descriptor{fd, POLLPRI, 0};
                             if (::poll(&descriptor, 1, 0) <= 0 || (descriptor.revents & POLLERR)) {
                                 return;
                             }
                             if ((descriptor.revents & POLLPRI) && handler_) {
                                 handler_(level);
                             }
                         });
        watches_.push_back(std::move(watch));
    }
    if (watches_.size() != triggers_.size()) {
        // All or nothing: half a source would report warnings but never critical events.
        cancel();
        handler_ = nullptr;
    }
}

void LinuxMemoryPressureSource::cancel() {
    for (Watch& watch : watches_) {
        // The handler may cancel from inside the notifier's own signal: delete it later.
        watch.notifier->setEnabled(false);
        watch.notifier.release()->deleteLater();
        ::close(watch.fd);
    }
    watches_.clear();
    handler_ = nullptr;
}

} // namespace parlune
