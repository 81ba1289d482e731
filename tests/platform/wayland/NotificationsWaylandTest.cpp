// Status messages on Wayland go to the desktop's notification server; here a server of the test's
// own on the private session bus, which records what it is asked.
#include "SwaySession.h"
#include "platform/linux/DesktopNotifications.h"
#include "support/RunTask.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QObject>

#include <gtest/gtest.h>

namespace parlune::test {
namespace {

struct Notification {
    std::uint32_t replaces = 0;
    QString body;
    int expire = 0;
};

class NotificationServer : public QObject {
public:
    std::vector<Notification> received;
    std::uint32_t nextId = 41;
    bool answer = true;

    // A connection of its own, as a separate server would have: calls to ourselves would be
    // answered inside Qt.
    bool start() {
        return bus_.registerService(QStringLiteral("org.freedesktop.Notifications")) &&
               bus_.registerVirtualObject(QStringLiteral("/org/freedesktop/Notifications"), &handler_);
    }
    ~NotificationServer() override {
        bus_.unregisterObject(QStringLiteral("/org/freedesktop/Notifications"));
        bus_.unregisterService(QStringLiteral("org.freedesktop.Notifications"));
        QDBusConnection::disconnectFromBus(bus_.name());
    }

private:
    QDBusConnection bus_ =
        QDBusConnection::connectToBus(QDBusConnection::SessionBus, QStringLiteral("notifications"));
    class Handler : public QDBusVirtualObject {
    public:
        explicit Handler(NotificationServer& server) : server_(server) {}
        QString introspect(const QString&) const override { return {}; }
        bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
            if (message.member() != QLatin1String("Notify") || message.arguments().size() != 8) {
                return false;
            }
            const QList<QVariant> arguments = message.arguments();
            server_.received.push_back(
                {arguments[1].toUInt(), arguments[4].toString(), arguments[7].toInt()});
            if (server_.answer) {
                connection.send(message.createReply(QVariant::fromValue(server_.nextId++)));
            }
            return true;
        }

    private:
        NotificationServer& server_;
    };
    Handler handler_{*this};
};

TEST(NotificationsWaylandTest, EachMessageReplacesThePreviousOneAndExpires) {
    if (!SwaySession::current() || !SwaySession::current()->isRunning()) {
        GTEST_SKIP() << "no private session bus";
    }
    NotificationServer server;
    ASSERT_TRUE(server.start());
    DesktopNotifications notifications;
    notifications.show(QStringLiteral("Copying the selection…"));
    ASSERT_TRUE(pumpUntil([&] { return notifications.lastId() == 41; }, 3000));
    notifications.show(QStringLiteral("Rewritten."));
    ASSERT_TRUE(pumpUntil([&] { return server.received.size() == 2; }, 3000));
    EXPECT_EQ(server.received[0].replaces, 0u);
    EXPECT_EQ(server.received[1].replaces, 41u);
    EXPECT_EQ(server.received[1].body, QStringLiteral("Rewritten."));
    EXPECT_EQ(server.received[1].expire, DesktopNotifications::expireMilliseconds);
}

TEST(NotificationsWaylandTest, AServerThatDoesNotAnswerNeverHoldsUpTheCaller) {
    if (!SwaySession::current() || !SwaySession::current()->isRunning()) {
        GTEST_SKIP() << "no private session bus";
    }
    NotificationServer server;
    server.answer = false;
    ASSERT_TRUE(server.start());
    DesktopNotifications notifications;
    QElapsedTimer timer;
    timer.start();
    notifications.show(QStringLiteral("first"));
    notifications.show(QStringLiteral("second"));
    notifications.show(QStringLiteral("third"));
    EXPECT_LT(timer.elapsed(), 100);
    // Only one call is out at a time; the newest message waits for it, the ones between are dropped.
    pumpFor(300);
    ASSERT_EQ(server.received.size(), 1u);
    EXPECT_EQ(server.received[0].body, QStringLiteral("first"));
}

} // namespace
} // namespace parlune::test
