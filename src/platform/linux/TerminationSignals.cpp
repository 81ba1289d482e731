#include "platform/linux/TerminationSignals.h"

#include <QSocketNotifier>

#include <csignal>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace parlune {

namespace {

int signalPipe[2] = {-1, -1};

void forwardSignal(int) {
    const char byte = 1;
    // Only async-signal-safe calls here; a full pipe means a quit is already on its way.
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

} // namespace

TerminationSignals::TerminationSignals(std::function<void()> onSignal) : onSignal_(std::move(onSignal)) {
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, signalPipe) != 0) {
        return;
    }
    notifier_ = std::make_unique<QSocketNotifier>(signalPipe[0], QSocketNotifier::Read);
    QObject::connect(notifier_.get(), &QSocketNotifier::activated, [this] {
        char buffer[16];
        while (::read(signalPipe[0], buffer, sizeof buffer) > 0) {
        }
        onSignal_();
    });
    struct sigaction action {};
    action.sa_handler = forwardSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        ::sigaction(signal, &action, nullptr);
    }
}

TerminationSignals::~TerminationSignals() {
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) {
        ::signal(signal, SIG_DFL);
    }
    notifier_.reset();
    for (int& fd : signalPipe) {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
}

} // namespace parlune
