#pragma once

#include "KWinSession.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QList>
#include <QProcess>

#include <gtest/gtest.h>

#include <array>
#include <initializer_list>
#include <optional>
#include <vector>

namespace parlune::test {

// Base of the KWin tests: a fresh session for every test and a connection to its bus. A test
// whose session cannot start is skipped with the reason; subclasses return from their own SetUp
// when IsSkipped() or HasFatalFailure().
class KWinTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!session_.start()) {
            GTEST_SKIP() << "no KWin session: " << session_.failure().toStdString();
        }
        bus_ = session_.connect(busName());
        ASSERT_TRUE(bus_.isConnected());
    }
    void TearDown() override {
        for (std::size_t i = 0; i < savedEnvironment_.size(); ++i) {
            if (savedEnvironment_[i]) {
                qputenv(sessionVariables[i], *savedEnvironment_[i]);
            } else {
                qunsetenv(sessionVariables[i]);
            }
        }
        QDBusConnection::disconnectFromBus(busName());
        session_.stop();
    }

    // Makes this process, and the programs it starts, part of the session, as they would be on a
    // KDE desktop: its Wayland socket and its bus (each test runs in a process of its own, so the
    // first bus connection libraries make is to the session's bus). Undone by TearDown.
    void enterSession() {
        for (const char* name : sessionVariables) {
            savedEnvironment_.push_back(qEnvironmentVariableIsSet(name) ? std::optional(qgetenv(name))
                                                                        : std::nullopt);
        }
        qputenv("WAYLAND_DISPLAY", session_.waylandSocketPath().toUtf8());
        qputenv("XDG_CURRENT_DESKTOP", "KDE");
        qputenv("XDG_SESSION_TYPE", "wayland");
        qputenv("DBUS_SESSION_BUS_ADDRESS", session_.busAddress().toUtf8());
        qunsetenv("DISPLAY");
    }
    bool setUpFailed() const { return IsSkipped() || HasFatalFailure(); }

    // Ends the programs a test started in the session, before the session itself goes.
    static void endPrograms(std::initializer_list<QProcess*> programs) {
        for (QProcess* program : programs) {
            if (program) {
                program->terminate();
                program->waitForFinished(3000);
            }
        }
    }

    // The keys the shortcut daemon has for an action (what System Settings → Shortcuts shows).
    QList<int> keysInShortcutDaemon(const QString& component, const QString& action) {
        QDBusMessage call = QDBusMessage::createMethodCall(
            QStringLiteral("org.kde.kglobalaccel"), QStringLiteral("/kglobalaccel"),
            QStringLiteral("org.kde.KGlobalAccel"), QStringLiteral("shortcut"));
        call << QStringList{component, action, component, action};
        const QDBusReply<QList<int>> reply = bus_.call(call);
        return reply.isValid() ? reply.value() : QList<int>{};
    }

    static QString busName() { return QStringLiteral("parlune-kwin-test"); }

    // What enterSession() changes, and what a test may set besides.
    static constexpr std::array sessionVariables{"WAYLAND_DISPLAY",  "XDG_CURRENT_DESKTOP",
                                                 "XDG_SESSION_TYPE", "DBUS_SESSION_BUS_ADDRESS",
                                                 "DISPLAY",          "QT_LINUX_ACCESSIBILITY_ALWAYS_ON"};
    std::vector<std::optional<QByteArray>> savedEnvironment_;
    KWinSession session_;
    QDBusConnection bus_{QString()};
};

} // namespace parlune::test
