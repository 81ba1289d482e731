#include "platform/linux/SystemTransitionWatcher.h"

#include <QDBusConnection>
#include <QSocketNotifier>
#include <QVariantMap>

#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>

namespace parlune {

namespace {

const QString login1 = QStringLiteral("org.freedesktop.login1");
// logind resolves "auto" to the caller's own session.
const QString ownSession = QStringLiteral("/org/freedesktop/login1/session/auto");

} // namespace

SystemTransitionWatcher::SystemTransitionWatcher(Handler handler) : handler_(std::move(handler)) {
    // Signal subscriptions are match rules sent without waiting for an answer.
    QDBusConnection system = QDBusConnection::systemBus();
    if (system.isConnected()) {
        system.connect(login1, QStringLiteral("/org/freedesktop/login1"),
                       QStringLiteral("org.freedesktop.login1.Manager"), QStringLiteral("PrepareForSleep"),
                       this, SLOT(prepareForSleep(bool)));
        system.connect(login1, ownSession, QStringLiteral("org.freedesktop.login1.Session"),
                       QStringLiteral("Unlock"), this, SLOT(sessionUnlocked()));
        system.connect(login1, ownSession, QStringLiteral("org.freedesktop.DBus.Properties"),
                       QStringLiteral("PropertiesChanged"), this,
                       SLOT(sessionPropertiesChanged(QString, QVariantMap, QStringList)));
    }
    armClockWatch();
}

SystemTransitionWatcher::~SystemTransitionWatcher() {
    clockNotifier_.reset();
    if (clockFd_ >= 0) {
        ::close(clockFd_);
    }
}

void SystemTransitionWatcher::prepareForSleep(bool sleeping) {
    if (!sleeping) {
        handler_(Transition::wokeFromSleep);
    }
}

void SystemTransitionWatcher::sessionUnlocked() {
    handler_(Transition::sessionActive);
}

void SystemTransitionWatcher::sessionPropertiesChanged(const QString&, const QVariantMap& changed,
                                                       const QStringList&) {
    const auto active = changed.find(QStringLiteral("Active"));
    if (active != changed.end() && active->toBool()) {
        handler_(Transition::sessionActive);
    }
}

// A realtime timer far in the future with TFD_TIMER_CANCEL_ON_SET: any setting of the clock makes
// its read fail with ECANCELED, which is the notice. Re-armed after each one.
void SystemTransitionWatcher::armClockWatch() {
    if (clockFd_ < 0) {
        clockFd_ = ::timerfd_create(CLOCK_REALTIME, TFD_NONBLOCK | TFD_CLOEXEC);
        if (clockFd_ < 0) {
            return;
        }
        clockNotifier_ = std::make_unique<QSocketNotifier>(clockFd_, QSocketNotifier::Read);
        QObject::connect(clockNotifier_.get(), &QSocketNotifier::activated, this, [this] { onClockFired(); });
    }
    itimerspec timer{};
    timer.it_value.tv_sec = std::time(nullptr) + 10L * 365 * 24 * 3600;
    ::timerfd_settime(clockFd_, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &timer, nullptr);
}

void SystemTransitionWatcher::onClockFired() {
    std::uint64_t expirations = 0;
    const ssize_t got = ::read(clockFd_, &expirations, sizeof expirations);
    (void)got;
    armClockWatch();
    handler_(Transition::clockChanged);
}

} // namespace parlune
