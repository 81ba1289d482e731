#include "platform/linux/portal/PortalGlobalShortcuts.h"
#include "platform/linux/portal/PortalRequest.h"

#include "core/hotkeys/HotKeyShortcut.h"
#include "support/RunTask.h"

#include <QDBusConnectionInterface>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>
#include <memory>

namespace parlune::portal {
namespace {

using test::pumpUntil;
using test::runTask;

constexpr std::uint32_t keysymSpace = 0x20;
constexpr std::uint32_t keysymR = 0x72;
constexpr std::uint32_t keysymEscape = 0xff1b;

TEST(PortalTriggerText, NamesModifiersInTheShortcutsFormatAndTheKeyByItsKeysymName) {
    EXPECT_EQ(PortalGlobalShortcuts::triggerFor(keysymSpace, carbon_modifier::option),
              QStringLiteral("ALT+space"));
    EXPECT_EQ(PortalGlobalShortcuts::triggerFor(keysymR, carbon_modifier::control | carbon_modifier::option |
                                                             carbon_modifier::shift |
                                                             carbon_modifier::command),
              QStringLiteral("CTRL+ALT+SHIFT+LOGO+r"));
    EXPECT_EQ(PortalGlobalShortcuts::triggerFor(keysymEscape, 0), QStringLiteral("Escape"));
    EXPECT_EQ(PortalGlobalShortcuts::triggerFor(0, carbon_modifier::option), std::nullopt);
}

TEST(PortalTriggerText, TheDesktopsOwnDescriptionMatchesWhateverItsSpellingAndOrder) {
    EXPECT_TRUE(
        PortalGlobalShortcuts::describesTrigger(QStringLiteral("Alt+Space"), QStringLiteral("ALT+space")));
    EXPECT_TRUE(PortalGlobalShortcuts::describesTrigger(QStringLiteral("Shift+Alt+R"),
                                                        QStringLiteral("ALT+SHIFT+r")));
    EXPECT_TRUE(
        PortalGlobalShortcuts::describesTrigger(QStringLiteral("Ctrl+Esc"), QStringLiteral("CTRL+Escape")));
    EXPECT_TRUE(PortalGlobalShortcuts::describesTrigger(QStringLiteral("Meta+R"), QStringLiteral("LOGO+r")));
    // Several keys: any one of them is the shortcut.
    EXPECT_TRUE(PortalGlobalShortcuts::describesTrigger(QStringLiteral("Alt+Space, Meta+R"),
                                                        QStringLiteral("LOGO+r")));
    EXPECT_TRUE(
        PortalGlobalShortcuts::describesTrigger(QStringLiteral("Ctrl++"), QStringLiteral("CTRL+plus")));
}

TEST(PortalTriggerText, NoKeyOrAnotherChordIsNotTheShortcut) {
    EXPECT_FALSE(PortalGlobalShortcuts::describesTrigger(QString(), QStringLiteral("ALT+space")));
    EXPECT_FALSE(
        PortalGlobalShortcuts::describesTrigger(QStringLiteral("Alt+R"), QStringLiteral("ALT+space")));
    EXPECT_FALSE(
        PortalGlobalShortcuts::describesTrigger(QStringLiteral("Space"), QStringLiteral("ALT+space")));
    EXPECT_FALSE(PortalGlobalShortcuts::describesTrigger(QStringLiteral("Ctrl+Alt+Space"),
                                                         QStringLiteral("ALT+space")));
}

// A bus of its own with no services to start, so no real portal can answer on it.
class PrivateBus {
public:
    PrivateBus() {
        const QString config = directory_.filePath(QStringLiteral("bus.conf"));
        QFile file(config);
        if (!file.open(QIODevice::WriteOnly)) {
            return;
        }
        file.write("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
                   " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                   "<busconfig><type>session</type><listen>unix:tmpdir=/tmp</listen>"
                   "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                   "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n");
        file.close();
        daemon_.start(QStringLiteral("dbus-daemon"),
                      {QStringLiteral("--config-file=") + config, QStringLiteral("--nofork"),
                       QStringLiteral("--print-address=1")});
        if (daemon_.waitForReadyRead(10'000)) {
            address_ = QString::fromUtf8(daemon_.readLine().trimmed());
        }
    }
    ~PrivateBus() {
        for (const QString& name : names_) {
            QDBusConnection::disconnectFromBus(name);
        }
        daemon_.terminate();
        daemon_.waitForFinished(5'000);
    }
    bool isUp() const { return !address_.isEmpty(); }
    QDBusConnection connect(const QString& name) {
        names_.append(name);
        return QDBusConnection::connectToBus(address_, name);
    }

private:
    QTemporaryDir directory_;
    QProcess daemon_;
    QString address_;
    QStringList names_;
};

TEST(PortalGlobalShortcutsWithoutPortal, ReportsThePortalAbsentAndRefusesToRegister) {
    PrivateBus bus;
    ASSERT_TRUE(bus.isUp()) << "no dbus-daemon";
    PortalGlobalShortcuts shortcuts(
        bus.connect(QStringLiteral("no-portal-client")),
        [](std::uint32_t) { return std::optional<std::uint32_t>(keysymSpace); }, QStringLiteral("Rewrite"));
    EXPECT_EQ(runTask(shortcuts.probe()), PortalGlobalShortcuts::Availability::absent);
    EXPECT_FALSE(shortcuts.isAvailable());
    EXPECT_EQ(shortcuts.registerHotKey(key_code::space, carbon_modifier::option, {1, 1}).status,
              PortalGlobalShortcuts::portalFailedStatus);
}

TEST(PortalGlobalShortcutsWithoutPortal, AKeyWithoutANameIsRefusedAtOnce) {
    PrivateBus bus;
    ASSERT_TRUE(bus.isUp()) << "no dbus-daemon";
    PortalGlobalShortcuts shortcuts(
        bus.connect(QStringLiteral("no-key-client")),
        [](std::uint32_t) { return std::optional<std::uint32_t>(); }, QStringLiteral("Rewrite"));
    EXPECT_EQ(shortcuts.registerHotKey(200, carbon_modifier::option, {1, 1}).status,
              PortalGlobalShortcuts::noSuchKeyStatus);
}

// Plays the portal frontend: answers every method on the desktop path with `answer`, which may
// emit signals before the reply is sent.
class ScriptedPortal final : public QDBusVirtualObject {
public:
    using Answer = std::function<void(const QDBusMessage& call, QDBusConnection& bus)>;
    ScriptedPortal(QDBusConnection bus, Answer answer) : bus_(std::move(bus)), answer_(std::move(answer)) {}
    QString introspect(const QString&) const override { return {}; }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection&) override {
        answer_(message, bus_);
        return true;
    }

private:
    QDBusConnection bus_;
    Answer answer_;
};

void respond(QDBusConnection& bus, const QString& requestPath, uint code) {
    QDBusMessage response = QDBusMessage::createSignal(
        requestPath, QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Response"));
    response << code << QVariantMap{{QStringLiteral("answer"), requestPath}};
    bus.send(response);
}

class PortalRequestTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus_.isUp()) << "no dbus-daemon";
        client_ = bus_.connect(QStringLiteral("request-client"));
        server_ = bus_.connect(QStringLiteral("request-portal"));
    }
    void serve(ScriptedPortal::Answer answer) {
        portal_ = std::make_unique<ScriptedPortal>(server_, std::move(answer));
        ASSERT_TRUE(server_.registerVirtualObject(QString::fromLatin1(desktopPath), portal_.get()));
        ASSERT_TRUE(server_.registerService(QString::fromLatin1(desktopService)));
    }
    QDBusMessage call(const QString& token) const {
        QDBusMessage message = QDBusMessage::createMethodCall(
            QString::fromLatin1(desktopService), QString::fromLatin1(desktopPath),
            QStringLiteral("org.example.Portal"), QStringLiteral("Ask"));
        message << QVariantMap{{QStringLiteral("handle_token"), token}};
        return message;
    }
    QString predictedPath(const QString& token) const {
        return PortalRequest::objectPath(QStringLiteral("request"), client_.baseService(), token);
    }

    PrivateBus bus_;
    QDBusConnection client_{QString()};
    QDBusConnection server_{QString()};
    std::unique_ptr<ScriptedPortal> portal_;
};

TEST_F(PortalRequestTest, TheRequestPathIsTheSendersNameWithoutColonAndDots) {
    EXPECT_EQ(
        PortalRequest::objectPath(QStringLiteral("request"), QStringLiteral(":1.42"), QStringLiteral("t")),
        QStringLiteral("/org/freedesktop/portal/desktop/request/1_42/t"));
    EXPECT_NE(PortalRequest::makeToken(QStringLiteral("x")), PortalRequest::makeToken(QStringLiteral("x")));
}

TEST_F(PortalRequestTest, AResponseSentBeforeTheReplyIsNotMissed) {
    const QString token = PortalRequest::makeToken(QStringLiteral("early"));
    serve([this, token](const QDBusMessage& message, QDBusConnection& bus) {
        respond(bus, predictedPath(token), PortalResponse::success);
        bus.send(message.createReply(QVariant::fromValue(QDBusObjectPath(predictedPath(token)))));
    });
    const PortalResponse response = runTask(PortalRequest::call(client_, call(token), token), 5000);
    EXPECT_TRUE(response.succeeded());
    EXPECT_EQ(response.results.value(QStringLiteral("answer")).toString(), predictedPath(token));
}

TEST_F(PortalRequestTest, APortalThatAnswersOnAnotherPathIsFollowedThere) {
    const QString token = PortalRequest::makeToken(QStringLiteral("moved"));
    const QString elsewhere = QStringLiteral("/org/freedesktop/portal/desktop/request/old/style");
    // The user answers a moment later, as with a dialog.
    serve([elsewhere](const QDBusMessage& message, QDBusConnection& bus) {
        bus.send(message.createReply(QVariant::fromValue(QDBusObjectPath(elsewhere))));
        QTimer::singleShot(
            100, [bus, elsewhere]() mutable { respond(bus, elsewhere, PortalResponse::cancelled); });
    });
    const PortalResponse response = runTask(PortalRequest::call(client_, call(token), token), 5000);
    EXPECT_EQ(response.code, PortalResponse::cancelled);
    EXPECT_EQ(response.results.value(QStringLiteral("answer")).toString(), elsewhere);
}

TEST_F(PortalRequestTest, AnErrorReplyOrAPortalLeavingTheBusEndsTheRequestAsFailed) {
    const QString refused = PortalRequest::makeToken(QStringLiteral("refused"));
    serve([](const QDBusMessage& message, QDBusConnection& bus) {
        bus.send(message.createErrorReply(QStringLiteral("org.freedesktop.portal.Error.NotAllowed"),
                                          QStringLiteral("not allowed here")));
    });
    const PortalResponse error = runTask(PortalRequest::call(client_, call(refused), refused), 5000);
    EXPECT_EQ(error.code, PortalResponse::failed);
    EXPECT_EQ(error.error, QStringLiteral("not allowed here"));

    // This time the reply comes and the Response never does: the portal goes away instead.
    server_.unregisterObject(QString::fromLatin1(desktopPath));
    const QString abandoned = PortalRequest::makeToken(QStringLiteral("abandoned"));
    serve([this, abandoned](const QDBusMessage& message, QDBusConnection& bus) {
        bus.send(message.createReply(QVariant::fromValue(QDBusObjectPath(predictedPath(abandoned)))));
        bus.unregisterService(QString::fromLatin1(desktopService));
    });
    const PortalResponse gone = runTask(PortalRequest::call(client_, call(abandoned), abandoned), 5000);
    EXPECT_EQ(gone.code, PortalResponse::failed);
    EXPECT_FALSE(gone.error.isEmpty());
}

} // namespace
} // namespace parlune::portal
