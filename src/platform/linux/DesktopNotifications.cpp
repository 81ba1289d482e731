#include "platform/linux/DesktopNotifications.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QStringList>
#include <QVariantMap>

namespace parlune {

DesktopNotifications::DesktopNotifications() = default;
DesktopNotifications::~DesktopNotifications() = default;

void DesktopNotifications::show(const QString& message) {
    pending_ = message;
    hasPending_ = true;
    // One call at a time, so that each one knows the id it replaces.
    if (!inFlight_) {
        send();
    }
}

void DesktopNotifications::send() {
    hasPending_ = false;
    inFlight_ = true;
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("/org/freedesktop/Notifications"),
        QStringLiteral("org.freedesktop.Notifications"), QStringLiteral("Notify"));
    call << QStringLiteral("Parlune") << lastId_ << QStringLiteral("parlune") << QStringLiteral("Parlune")
         << pending_ << QStringList() << QVariantMap{{QStringLiteral("transient"), true}}
         << expireMilliseconds;
    auto* watcher = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call), &guard_);
    QObject::connect(watcher, &QDBusPendingCallWatcher::finished, &guard_,
                     [this](QDBusPendingCallWatcher* done) {
                         const QDBusPendingReply<std::uint32_t> reply = *done;
                         done->deleteLater();
                         // Without a server the message is lost, like a panel nobody looks at; the next one
                         // tries again.
                         if (reply.isValid()) {
                             lastId_ = reply.value();
                         }
                         inFlight_ = false;
                         if (hasPending_) {
                             send();
                         }
                     });
}

} // namespace parlune
