#include "platform/linux/portal/PortalGlobalShortcuts.h"
#include "platform/linux/portal/PortalRemoteDesktopKeyboard.h"
#include "platform/linux/portal/PortalRequest.h"

#include "core/hotkeys/HotKeyShortcut.h"
#include "support/FakeUserDefaults.h"
#include "support/FixedFrontApplication.h"
#include "support/RunTask.h"
#include "support/ScopedPlatformTerms.h"

#include <QDBusArgument>
#include <QDBusConnectionInterface>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QProcess>
#include <QTemporaryDir>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>
#include <map>
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

// The desktop describes the key it bound in its own spelling and order; several keys are
// separated by commas, and any one of them is the shortcut.
TEST(PortalTriggerText, TheDesktopsOwnDescriptionMatchesOnlyTheSameChord) {
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"Alt+Space", "ALT+space", true},
        {"Shift+Alt+R", "ALT+SHIFT+r", true},
        {"Ctrl+Esc", "CTRL+Escape", true},
        {"Meta+R", "LOGO+r", true},
        {"Alt+Space, Meta+R", "LOGO+r", true},
        {"Ctrl++", "CTRL+plus", true},
        {"", "ALT+space", false},
        {"Alt+R", "ALT+space", false},
        {"Space", "ALT+space", false},
        {"Ctrl+Alt+Space", "ALT+space", false},
    };
    for (const auto& [description, trigger, matches] : cases) {
        EXPECT_EQ(PortalGlobalShortcuts::describesTrigger(QString::fromLatin1(description),
                                                          QString::fromLatin1(trigger)),
                  matches)
            << description << " / " << trigger;
    }
}

TEST(PortalTriggerText, TheDesktopsDescriptionBecomesAStoredShortcutInOurWords) {
    testing::ScopedPlatformTerms linuxWords(PlatformTerms::linux());
    const auto keyCodeFor = [](std::uint32_t keysym) -> std::optional<std::uint32_t> {
        const std::map<std::uint32_t, std::uint32_t> codes{{keysymR, key_code::r},
                                                           {0x52 /* R */, key_code::r},
                                                           {keysymEscape, key_code::escape},
                                                           {keysymSpace, key_code::space}};
        const auto found = codes.find(keysym);
        return found == codes.end() ? std::nullopt : std::optional(found->second);
    };
    EXPECT_EQ(PortalGlobalShortcuts::shortcutFor(QStringLiteral("Alt+R"), keyCodeFor),
              (HotKeyShortcut{key_code::r, carbon_modifier::option, QStringLiteral("Alt+R")}));
    EXPECT_EQ(PortalGlobalShortcuts::shortcutFor(QStringLiteral("Shift+Ctrl+Esc, Meta+R"), keyCodeFor),
              (HotKeyShortcut{key_code::escape, carbon_modifier::control | carbon_modifier::shift,
                              QStringLiteral("Ctrl+Shift+Escape")}));
    EXPECT_EQ(PortalGlobalShortcuts::shortcutFor(QStringLiteral("Meta+Space"), keyCodeFor)->displayName,
              QStringLiteral("Super+Space"));
    // No modifier, a key our table lacks, two keys, nothing bound: nothing to store.
    for (const char* description : {"R", "Alt+F13", "Alt+R+Space", ""}) {
        EXPECT_EQ(PortalGlobalShortcuts::shortcutFor(QString::fromLatin1(description), keyCodeFor),
                  std::nullopt)
            << description;
    }
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
        [](std::uint32_t keyCode) {
            return keyCode == key_code::space ? std::optional<std::uint32_t>(keysymSpace) : std::nullopt;
        },
        QStringLiteral("Rewrite"));
    // A key without a name is refused at once, before the portal is asked.
    EXPECT_EQ(shortcuts.registerHotKey(200, carbon_modifier::option, {1, 1}).status,
              PortalGlobalShortcuts::noSuchKeyStatus);
    EXPECT_EQ(runTask(shortcuts.probe()), PortalGlobalShortcuts::Availability::absent);
    EXPECT_FALSE(shortcuts.isAvailable());
    EXPECT_EQ(shortcuts.registerHotKey(key_code::space, carbon_modifier::option, {1, 1}).status,
              PortalGlobalShortcuts::portalFailedStatus);
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

TEST_F(PortalRequestTest, APortalThatNeverAnswersAProbeCountsAsAbsentAfterTheBound) {
    const QString interface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
    EXPECT_EQ(runTask(PortalRequest::properties(client_, interface), 5000).absence,
              QStringLiteral("not_offered"));
    serve([](const QDBusMessage&, QDBusConnection&) {}); // takes the call, never replies
    QElapsedTimer waited;
    waited.start();
    const PortalProbe silent = runTask(PortalRequest::properties(client_, interface, 300), 5000);
    EXPECT_EQ(silent.absence, QStringLiteral("no_answer"));
    EXPECT_LT(waited.elapsed(), 2000);
}

// Plays a version 2 RemoteDesktop portal with a keyboard: records what the keyboard port asks for
// and answers Start with `startCode` and a restore token.
class RemoteDesktopPortalScript {
public:
    uint startCode = PortalResponse::success;
    QVariantMap selectOptions;
    int sessions = 0;
    std::vector<std::pair<int, uint>> keysyms;

    void operator()(const QDBusMessage& message, QDBusConnection& bus) {
        const QString member = message.member();
        if (member == QLatin1String("GetAll")) {
            bus.send(message.createReply(QVariant(
                QVariantMap{{QStringLiteral("version"), 2u}, {QStringLiteral("AvailableDeviceTypes"), 7u}})));
            return;
        }
        if (member == QLatin1String("NotifyKeyboardKeysym")) {
            keysyms.emplace_back(message.arguments().at(2).toInt(), message.arguments().at(3).toUInt());
            bus.send(message.createReply());
            return;
        }
        const QVariantMap options = qdbus_cast<QVariantMap>(message.arguments().last());
        const QString request =
            PortalRequest::objectPath(QStringLiteral("request"), message.service(),
                                      options.value(QStringLiteral("handle_token")).toString());
        bus.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));
        QVariantMap results;
        uint code = PortalResponse::success;
        if (member == QLatin1String("CreateSession")) {
            ++sessions;
            results.insert(
                QStringLiteral("session_handle"),
                PortalRequest::objectPath(QStringLiteral("session"), message.service(),
                                          options.value(QStringLiteral("session_handle_token")).toString()));
        } else if (member == QLatin1String("SelectDevices")) {
            selectOptions = options;
        } else if (member == QLatin1String("Start")) {
            code = startCode;
            results.insert(QStringLiteral("devices"), 1u);
            results.insert(QStringLiteral("restore_token"), QStringLiteral("token-%1").arg(sessions));
        }
        QDBusMessage response = QDBusMessage::createSignal(
            request, QStringLiteral("org.freedesktop.portal.Request"), QStringLiteral("Response"));
        response << code << results;
        bus.send(response);
    }
};

class PortalKeyboardSessionTest : public PortalRequestTest {
protected:
    void SetUp() override {
        PortalRequestTest::SetUp();
        if (HasFatalFailure()) {
            return;
        }
        script_ = std::make_shared<RemoteDesktopPortalScript>();
        serve([script = script_](const QDBusMessage& message, QDBusConnection& bus) {
            (*script)(message, bus);
        });
        workspace_.front = target;
    }
    std::unique_ptr<PortalRemoteDesktopKeyboard> makeKeyboard() {
        auto keyboard = std::make_unique<PortalRemoteDesktopKeyboard>(
            client_, workspace_, settings_,
            [](std::uint32_t keyCode) {
                return keyCode == KeyboardEvents::keyCodeC ? std::optional<std::uint32_t>(keysymC)
                                                           : std::nullopt;
            },
            nullptr);
        EXPECT_EQ(runTask(keyboard->probe()), PortalRemoteDesktopKeyboard::Availability::available);
        return keyboard;
    }
    std::optional<QString> storedToken() const {
        return settings_.string(QString::fromLatin1(PortalRemoteDesktopKeyboard::restoreTokenKey));
    }

    static constexpr ProcessId target = 4242;
    static constexpr std::uint32_t keysymC = 0x63;
    std::shared_ptr<RemoteDesktopPortalScript> script_;
    test::FixedFrontApplication workspace_;
    testing::FakeUserDefaults settings_;
};

TEST_F(PortalKeyboardSessionTest, TheConsentIsKeptAndOfferedAgainByTheNextRun) {
    {
        auto keyboard = makeKeyboard();
        ASSERT_TRUE(runTask(keyboard->start()));
    }
    EXPECT_EQ(script_->selectOptions.value(QStringLiteral("persist_mode")).toUInt(), 2u);
    EXPECT_FALSE(script_->selectOptions.contains(QStringLiteral("restore_token")));
    EXPECT_EQ(storedToken(), QStringLiteral("token-1"));

    auto nextRun = makeKeyboard();
    ASSERT_TRUE(runTask(nextRun->start()));
    EXPECT_EQ(script_->selectOptions.value(QStringLiteral("restore_token")).toString(),
              QStringLiteral("token-1"));
    EXPECT_EQ(storedToken(), QStringLiteral("token-2"));
}

TEST_F(PortalKeyboardSessionTest, AChordDuringTheConsentWaitsForItAndOneSessionIsOpened) {
    auto keyboard = makeKeyboard();
    TaskOutcome<bool> starting(keyboard->start());
    EXPECT_TRUE(runTask(keyboard->sendCommandKey(KeyboardEvents::keyCodeC, target, {})));
    ASSERT_TRUE(pumpUntil([&] { return starting.isFinished(); }));
    EXPECT_TRUE(starting.take());
    EXPECT_EQ(script_->sessions, 1);
    EXPECT_EQ(script_->keysyms.size(), 4u);
}

TEST_F(PortalKeyboardSessionTest, ADeclinedConsentSendsNothingAndForgetsTheKeptOne) {
    settings_.setString(QString::fromLatin1(PortalRemoteDesktopKeyboard::restoreTokenKey),
                        QStringLiteral("old"));
    script_->startCode = PortalResponse::cancelled;
    auto keyboard = makeKeyboard();
    EXPECT_FALSE(runTask(keyboard->sendCommandKey(KeyboardEvents::keyCodeC, target, {})));
    EXPECT_FALSE(keyboard->isStarted());
    EXPECT_TRUE(script_->keysyms.empty());
    EXPECT_FALSE(storedToken());
}

TEST_F(PortalKeyboardSessionTest, ChordsPressInOrderReleaseInReverseAndGoOnlyToTheTargetInFront) {
    auto keyboard = makeKeyboard();
    ASSERT_TRUE(runTask(keyboard->sendChord(
        KeyChord{KeyboardEvents::keyCodeC, KeyChord::command | KeyChord::shift}, target, {})));
    const std::vector<std::pair<int, uint>> controlShiftC{{0xffe3, 1}, {0xffe1, 1}, {0x63, 1},
                                                          {0x63, 0},   {0xffe1, 0}, {0xffe3, 0}};
    EXPECT_EQ(script_->keysyms, controlShiftC);

    script_->keysyms.clear();
    workspace_.front = target + 1;
    EXPECT_FALSE(runTask(keyboard->sendCommandKey(KeyboardEvents::keyCodeC, target, {})));
    // A key without a keysym is refused before anything is sent.
    workspace_.front = target;
    EXPECT_FALSE(runTask(keyboard->sendCommandKey(KeyboardEvents::keyCodeV, target, {})));
    EXPECT_TRUE(script_->keysyms.empty());
    EXPECT_EQ(script_->sessions, 1);
}

} // namespace
} // namespace parlune::portal
