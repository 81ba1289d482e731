#include "platform/linux/SessionInstance.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QTimer>

namespace parlune {

namespace {

const QString introspection = QStringLiteral("  <interface name=\"org.parlune.Parlune\">\n"
                                             "    <method name=\"ShowSettings\"/>\n"
                                             "    <method name=\"RewriteSelection\"/>\n"
                                             "  </interface>\n");

} // namespace

// Answers at once and runs the handler on a later turn of the event loop, so the caller never
// waits for what the handler does.
class SessionInstance::Object : public QDBusVirtualObject {
public:
    explicit Object(Handlers handlers) : handlers_(std::move(handlers)) {}

    QString introspect(const QString&) const override { return introspection; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        if (message.interface() != QLatin1String(interfaceName) && !message.interface().isEmpty()) {
            return false;
        }
        std::function<void()> handler;
        if (message.member() == QLatin1String("ShowSettings")) {
            handler = handlers_.showSettings;
        } else if (message.member() == QLatin1String("RewriteSelection")) {
            handler = handlers_.rewriteSelection;
        } else {
            return false;
        }
        connection.send(message.createReply());
        if (handler) {
            QTimer::singleShot(0, handler);
        }
        return true;
    }

private:
    Handlers handlers_;
};

SessionInstance::SessionInstance() = default;

SessionInstance::~SessionInstance() {
    if (registered_) {
        QDBusConnection bus = QDBusConnection::sessionBus();
        bus.unregisterObject(QString::fromLatin1(objectPath));
        bus.unregisterService(QString::fromLatin1(serviceName));
    }
}

SessionInstance::Claim SessionInstance::claim(Handlers handlers) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return Claim::noSessionBus;
    }
    if (!bus.registerService(QString::fromLatin1(serviceName))) {
        return Claim::alreadyRunning;
    }
    object_ = std::make_unique<Object>(std::move(handlers));
    registered_ = bus.registerVirtualObject(QString::fromLatin1(objectPath), object_.get());
    return Claim::claimed;
}

QString SessionInstance::callRunningInstance(const QString& method, int timeoutMs) {
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        return QStringLiteral("There is no session bus to reach Parlune on.");
    }
    QDBusMessage call =
        QDBusMessage::createMethodCall(QString::fromLatin1(serviceName), QString::fromLatin1(objectPath),
                                       QString::fromLatin1(interfaceName), method);
    const QDBusMessage reply = bus.call(call, QDBus::Block, timeoutMs);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        if (reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.ServiceUnknown") ||
            reply.errorName() == QLatin1String("org.freedesktop.DBus.Error.NameHasNoOwner")) {
            return QStringLiteral("Parlune is not running. Start it first.");
        }
        return QStringLiteral("Parlune did not answer: ") + reply.errorMessage();
    }
    return {};
}

} // namespace parlune
