#include "platform/linux/portal/PortalRequest.h"

#include <QCoro/QCoroDBusPendingReply>
#include <QCoro/QCoroSignal>
#include <QDBusObjectPath>
#include <QDBusPendingReply>
#include <QDBusServiceWatcher>
#include <QRandomGenerator>

namespace parlune::portal {

namespace {

constexpr const char* requestInterface = "org.freedesktop.portal.Request";

// Receives the Response signal of one request path (or two, when the portal moved it).
class ResponseCatcher final : public QObject {
    Q_OBJECT
public:
    bool answered = false;
    PortalResponse response;

Q_SIGNALS:
    void done();

public Q_SLOTS:
    void onResponse(uint code, const QVariantMap& results) { finish({code, results, {}}); }
    void onPortalGone() {
        finish({PortalResponse::failed, {}, QStringLiteral("The desktop portal left the session bus")});
    }

private:
    void finish(PortalResponse value) {
        if (answered) {
            return;
        }
        answered = true;
        response = std::move(value);
        Q_EMIT done();
    }
};

bool subscribe(QDBusConnection& bus, const QString& path, ResponseCatcher* catcher) {
    return bus.connect(anySender, path, QString::fromLatin1(requestInterface), QStringLiteral("Response"),
                       catcher, SLOT(onResponse(uint, QVariantMap)));
}

void unsubscribe(QDBusConnection& bus, const QString& path, ResponseCatcher* catcher) {
    bus.disconnect(anySender, path, QString::fromLatin1(requestInterface), QStringLiteral("Response"),
                   catcher, SLOT(onResponse(uint, QVariantMap)));
}

} // namespace

QString PortalRequest::makeToken(const QString& prefix) {
    static std::uint32_t counter = 0;
    return QStringLiteral("%1_%2_%3").arg(prefix).arg(++counter).arg(QRandomGenerator::global()->generate());
}

QString PortalRequest::objectPath(const QString& kind, const QString& uniqueName, const QString& token) {
    QString sender = uniqueName.startsWith(u':') ? uniqueName.mid(1) : uniqueName;
    sender.replace(u'.', u'_');
    return QStringLiteral("/org/freedesktop/portal/desktop/%1/%2/%3").arg(kind, sender, token);
}

QString PortalRequest::sessionHandleIn(const QVariantMap& results) {
    const QVariant handle = results.value(QStringLiteral("session_handle"));
    if (handle.metaType() == QMetaType::fromType<QDBusObjectPath>()) {
        return handle.value<QDBusObjectPath>().path();
    }
    return handle.toString();
}

QCoro::Task<PortalProbe> PortalRequest::properties(QDBusConnection bus, QString interface, int timeoutMs) {
    QDBusMessage message = QDBusMessage::createMethodCall(
        QString::fromLatin1(desktopService), QString::fromLatin1(desktopPath),
        QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("GetAll"));
    message << interface;
    const QDBusPendingReply<QVariantMap> reply =
        co_await QDBusPendingReply<QVariantMap>(bus.asyncCall(message, timeoutMs));
    if (!reply.isError()) {
        co_return PortalProbe{reply.value(), {}};
    }
    const QDBusError::ErrorType error = reply.error().type();
    const bool unanswered =
        error == QDBusError::NoReply || error == QDBusError::Timeout || error == QDBusError::TimedOut;
    co_return PortalProbe{{}, unanswered ? QStringLiteral("no_answer") : QStringLiteral("not_offered")};
}

QCoro::Task<PortalResponse> PortalRequest::call(QDBusConnection bus, QDBusMessage message, QString token) {
    ResponseCatcher catcher;
    QDBusServiceWatcher watcher(QString::fromLatin1(desktopService), bus,
                                QDBusServiceWatcher::WatchForUnregistration);
    QObject::connect(&watcher, &QDBusServiceWatcher::serviceUnregistered, &catcher,
                     &ResponseCatcher::onPortalGone);

    const QString predicted = objectPath(QStringLiteral("request"), bus.baseService(), token);
    subscribe(bus, predicted, &catcher);
    const QDBusPendingReply<QDBusObjectPath> reply =
        co_await QDBusPendingReply<QDBusObjectPath>(bus.asyncCall(message));
    QString actual = predicted;
    if (reply.isError()) {
        unsubscribe(bus, predicted, &catcher);
        co_return PortalResponse{PortalResponse::failed, {}, reply.error().message()};
    }
    if (reply.value().path() != predicted && !catcher.answered) {
        actual = reply.value().path();
        subscribe(bus, actual, &catcher);
    }
    if (!catcher.answered) {
        co_await qCoro(&catcher, &ResponseCatcher::done);
    }
    unsubscribe(bus, predicted, &catcher);
    if (actual != predicted) {
        unsubscribe(bus, actual, &catcher);
    }
    co_return catcher.response;
}

} // namespace parlune::portal

#include "PortalRequest.moc"
