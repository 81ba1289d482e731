#include "StatusNotifierHost.h"

#include <QDBusArgument>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QDateTime>

namespace parlune::test {

namespace {

const QString watcherService = QStringLiteral("org.kde.StatusNotifierWatcher");
const QString watcherPath = QStringLiteral("/StatusNotifierWatcher");
const QString itemPath = QStringLiteral("/StatusNotifierItem");
const QString menuInterface = QStringLiteral("com.canonical.dbusmenu");

StatusNotifierHost::MenuEntry readEntry(const QDBusArgument& argument) {
    StatusNotifierHost::MenuEntry entry;
    QVariantMap properties;
    argument.beginStructure();
    argument >> entry.id >> properties;
    argument.beginArray();
    while (!argument.atEnd()) {
        QDBusVariant child;
        argument >> child;
        entry.children.push_back(readEntry(child.variant().value<QDBusArgument>()));
    }
    argument.endArray();
    argument.endStructure();
    entry.label = properties.value(QStringLiteral("label")).toString().remove(QLatin1Char('_'));
    entry.enabled = properties.value(QStringLiteral("enabled"), true).toBool();
    entry.visible = properties.value(QStringLiteral("visible"), true).toBool();
    entry.type = properties.value(QStringLiteral("type")).toString();
    if (properties.contains(QStringLiteral("toggle-state"))) {
        entry.toggleState = properties.value(QStringLiteral("toggle-state")).toInt();
    }
    return entry;
}

} // namespace

class StatusNotifierHost::Watcher : public QDBusVirtualObject {
public:
    QStringList items;

    QString introspect(const QString&) const override {
        return QStringLiteral("<interface name=\"org.kde.StatusNotifierWatcher\">"
                              "<method name=\"RegisterStatusNotifierItem\"><arg name=\"service\" type=\"s\" "
                              "direction=\"in\"/></method>"
                              "<method name=\"RegisterStatusNotifierHost\"><arg name=\"service\" type=\"s\" "
                              "direction=\"in\"/></method>"
                              "<property name=\"RegisteredStatusNotifierItems\" type=\"as\" access=\"read\"/>"
                              "<property name=\"IsStatusNotifierHostRegistered\" type=\"b\" access=\"read\"/>"
                              "<property name=\"ProtocolVersion\" type=\"i\" access=\"read\"/>"
                              "</interface>");
    }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const QString member = message.member();
        if (member == QLatin1String("RegisterStatusNotifierItem")) {
            QString service = message.arguments().value(0).toString();
            if (service.startsWith(QLatin1Char('/'))) {
                service = message.service(); // an object path: the item lives at the sender
            }
            items.append(service);
            connection.send(message.createReply());
            return true;
        }
        if (member == QLatin1String("RegisterStatusNotifierHost")) {
            connection.send(message.createReply());
            return true;
        }
        if (member == QLatin1String("Get")) {
            connection.send(message.createReply(
                QVariant::fromValue(QDBusVariant(property(message.arguments().value(1).toString())))));
            return true;
        }
        if (member == QLatin1String("GetAll")) {
            QVariantMap all;
            for (const char* name :
                 {"RegisteredStatusNotifierItems", "IsStatusNotifierHostRegistered", "ProtocolVersion"}) {
                all.insert(QString::fromLatin1(name), property(QString::fromLatin1(name)));
            }
            connection.send(message.createReply(QVariant(all)));
            return true;
        }
        return false;
    }

private:
    QVariant property(const QString& name) const {
        if (name == QLatin1String("RegisteredStatusNotifierItems")) {
            return items;
        }
        if (name == QLatin1String("IsStatusNotifierHostRegistered")) {
            return true;
        }
        return 0;
    }
};

StatusNotifierHost::StatusNotifierHost() : watcher_(std::make_unique<Watcher>()) {}

StatusNotifierHost::~StatusNotifierHost() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    bus.unregisterObject(watcherPath);
    bus.unregisterService(watcherService);
}

bool StatusNotifierHost::start() {
    QDBusConnection bus = QDBusConnection::sessionBus();
    return bus.isConnected() && bus.registerService(watcherService) &&
           bus.registerVirtualObject(watcherPath, watcher_.get());
}

const QStringList& StatusNotifierHost::items() const {
    return watcher_->items;
}

std::optional<QVariant> StatusNotifierHost::itemProperty(const QString& itemService, const QString& name) {
    QDBusMessage get = QDBusMessage::createMethodCall(
        itemService, itemPath, QStringLiteral("org.freedesktop.DBus.Properties"), QStringLiteral("Get"));
    get << QStringLiteral("org.kde.StatusNotifierItem") << name;
    const QDBusMessage reply = QDBusConnection::sessionBus().call(get, QDBus::Block, 3000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().isEmpty()) {
        return std::nullopt;
    }
    return reply.arguments().first().value<QDBusVariant>().variant();
}

std::optional<StatusNotifierHost::MenuEntry> StatusNotifierHost::readMenu(const QString& itemService) {
    const std::optional<QVariant> menuPath = itemProperty(itemService, QStringLiteral("Menu"));
    if (!menuPath) {
        return std::nullopt;
    }
    const QString path = menuPath->value<QDBusObjectPath>().path();
    QDBusMessage about =
        QDBusMessage::createMethodCall(itemService, path, menuInterface, QStringLiteral("AboutToShow"));
    about << 0;
    QDBusConnection::sessionBus().call(about, QDBus::Block, 3000);
    QDBusMessage layout =
        QDBusMessage::createMethodCall(itemService, path, menuInterface, QStringLiteral("GetLayout"));
    layout << 0 << -1 << QStringList();
    const QDBusMessage reply = QDBusConnection::sessionBus().call(layout, QDBus::Block, 3000);
    if (reply.type() != QDBusMessage::ReplyMessage || reply.arguments().size() < 2) {
        return std::nullopt;
    }
    return readEntry(reply.arguments().at(1).value<QDBusArgument>());
}

bool StatusNotifierHost::click(const QString& itemService, int id) {
    const std::optional<QVariant> menuPath = itemProperty(itemService, QStringLiteral("Menu"));
    if (!menuPath) {
        return false;
    }
    QDBusMessage event = QDBusMessage::createMethodCall(
        itemService, menuPath->value<QDBusObjectPath>().path(), menuInterface, QStringLiteral("Event"));
    event << id << QStringLiteral("clicked") << QVariant::fromValue(QDBusVariant(QVariant(0)))
          << static_cast<uint>(QDateTime::currentSecsSinceEpoch());
    const QDBusMessage reply = QDBusConnection::sessionBus().call(event, QDBus::Block, 3000);
    return reply.type() == QDBusMessage::ReplyMessage;
}

} // namespace parlune::test
