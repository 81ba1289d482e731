#include "KWinFakeKeyboard.h"
#include "KWinTest.h"

#include "core/hotkeys/HotKeyError.h"
#include "core/hotkeys/HotKeyManager.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "platform/linux/portal/PortalGlobalShortcuts.h"
#include "platform/x11/X11KeyTable.h"
#include "support/RunTask.h"
#include "support/ScopedPlatformTerms.h"

#include <QDBusMessage>
#include <QDBusReply>

#include <gtest/gtest.h>

#include <optional>

namespace parlune::portal {
namespace {

using test::KWinFakeKeyboard;
using test::pumpFor;
using test::pumpUntil;
using test::runTask;

// How long the desktop may take to bind: the portal backend starts on first use.
constexpr int bindTimeoutMs = 30'000;
// How long a press may take from the fake keyboard through KWin and the portal to us.
constexpr int deliveryTimeoutMs = 5'000;
// Qt's key code for Alt+R, as the shortcut daemon stores keys.
constexpr int altR = 0x08000000 | 0x52;

class PortalShortcutsOnKWin : public test::KWinTest {
protected:
    void SetUp() override {
        KWinTest::SetUp();
        if (setUpFailed()) {
            return;
        }
        shortcuts_.emplace(bus_, &x11::X11KeyTable::keysymFor, QStringLiteral("Rewrite the selection"));
        shortcuts_->setRefusalHandler([this](std::int32_t status) { refusals_.push_back(status); });
        ASSERT_EQ(runTask(shortcuts_->probe()), PortalGlobalShortcuts::Availability::available);
    }
    void TearDown() override {
        shortcuts_.reset();
        KWinTest::TearDown();
    }

    bool waitForBinding() {
        return pumpUntil([this] { return !shortcuts_->isBinding(); }, bindTimeoutMs);
    }

    std::optional<PortalGlobalShortcuts> shortcuts_;
    std::vector<std::int32_t> refusals_;
};

TEST_F(PortalShortcutsOnKWin, TheShortcutIsBoundThroughThePortalAndEachPressDeliveredOnce) {
    HotKeyManager manager(*shortcuts_);
    int presses = 0;
    manager.registerShortcut(HotKeyShortcut::defaultShortcut(), [&] { ++presses; });
    ASSERT_TRUE(waitForBinding());
    EXPECT_TRUE(refusals_.empty());
    EXPECT_EQ(shortcuts_->boundTrigger(), QStringLiteral("Alt+Space"));
    // Qt's key code for Alt+Space, as the daemon stores it for System Settings.
    EXPECT_EQ(keysInShortcutDaemon(QStringLiteral("parlune"),
                                   QString::fromLatin1(PortalGlobalShortcuts::shortcutId)),
              QList<int>{0x08000000 | 0x20});

    KWinFakeKeyboard keyboard(session_.waylandSocketPath());
    ASSERT_TRUE(keyboard.isReady()) << "KWin offers no fake input to tests";
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::space}));
    ASSERT_TRUE(pumpUntil([&] { return presses == 1; }, deliveryTimeoutMs));
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::space}));
    ASSERT_TRUE(pumpUntil([&] { return presses == 2; }, deliveryTimeoutMs));

    // Space alone is not the shortcut, and once unregistered the binding delivers nothing.
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::space}));
    manager.unregister();
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::space}));
    pumpFor(500);
    EXPECT_EQ(presses, 2);
}

TEST_F(PortalShortcutsOnKWin, AKeyAnotherApplicationHoldsIsRefusedInTheDesktopsOwnWords) {
    // Another application files Alt+R with the shortcut daemon first, as KDE applications do.
    const QStringList other{QStringLiteral("other-app"), QStringLiteral("do-something"),
                            QStringLiteral("Other App"), QStringLiteral("Do something")};
    QDBusMessage registerAction = QDBusMessage::createMethodCall(
        QStringLiteral("org.kde.kglobalaccel"), QStringLiteral("/kglobalaccel"),
        QStringLiteral("org.kde.KGlobalAccel"), QStringLiteral("doRegister"));
    registerAction << other;
    ASSERT_EQ(bus_.call(registerAction).type(), QDBusMessage::ReplyMessage);
    QDBusMessage setKey = QDBusMessage::createMethodCall(
        QStringLiteral("org.kde.kglobalaccel"), QStringLiteral("/kglobalaccel"),
        QStringLiteral("org.kde.KGlobalAccel"), QStringLiteral("setShortcut"));
    constexpr uint setPresent = 2;
    constexpr uint noAutoloading = 4;
    setKey << other << QVariant::fromValue(QList<int>{altR}) << (setPresent | noAutoloading);
    ASSERT_EQ(bus_.call(setKey).type(), QDBusMessage::ReplyMessage);
    ASSERT_EQ(keysInShortcutDaemon(other.at(0), other.at(1)), QList<int>{altR});

    HotKeyManager manager(*shortcuts_);
    int presses = 0;
    manager.registerShortcut(HotKeyShortcut{key_code::r, carbon_modifier::option, QStringLiteral("Option+R")},
                             [&] { ++presses; });
    ASSERT_TRUE(pumpUntil([&] { return !refusals_.empty(); }, bindTimeoutMs))
        << "bound to " << shortcuts_->boundTrigger().toStdString();
    EXPECT_EQ(refusals_, std::vector<std::int32_t>{PortalGlobalShortcuts::refusedStatus});
    testing::ScopedPlatformTerms wayland(PlatformTerms::waylandLinux());
    EXPECT_STREQ(HotKeyError::registrationFailed(refusals_.front()).what(),
                 "Could not register the hotkey: the desktop gave the key to another program.");
    EXPECT_TRUE(shortcuts_->boundTrigger().isEmpty());

    KWinFakeKeyboard keyboard(session_.waylandSocketPath());
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::r}));
    pumpFor(500);
    EXPECT_EQ(presses, 0);
}

TEST_F(PortalShortcutsOnKWin, AnotherKeyIsRefusedWhileTheDesktopKeepsTheBoundOneWhichStillWorks) {
    HotKeyManager manager(*shortcuts_);
    int presses = 0;
    manager.registerShortcut(HotKeyShortcut::defaultShortcut(), [&] { ++presses; });
    ASSERT_TRUE(waitForBinding());
    ASSERT_TRUE(refusals_.empty());

    // KDE keeps the key it bound (the user may have chosen it in System Settings): a new preferred
    // key is not taken, and saying so lets the caller go back to the registered one.
    manager.registerShortcut(HotKeyShortcut{key_code::r, carbon_modifier::option, QStringLiteral("Option+R")},
                             [&] { ++presses; });
    ASSERT_TRUE(pumpUntil([&] { return !refusals_.empty(); }, bindTimeoutMs));
    EXPECT_EQ(refusals_.front(), PortalGlobalShortcuts::keptOtherKeyStatus);
    EXPECT_EQ(shortcuts_->boundTrigger(), QStringLiteral("Alt+Space"));

    manager.registerShortcut(HotKeyShortcut::defaultShortcut(), [&] { ++presses; });
    ASSERT_TRUE(waitForBinding());
    EXPECT_EQ(refusals_.size(), 1u);
    KWinFakeKeyboard keyboard(session_.waylandSocketPath());
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::space}));
    ASSERT_TRUE(pumpUntil([&] { return presses == 1; }, deliveryTimeoutMs));
}

TEST_F(PortalShortcutsOnKWin, AShortcutReplacedWhileItIsBeingBoundLeavesOnlyTheLatest) {
    HotKeyManager manager(*shortcuts_);
    int presses = 0;
    // Each registration replaces the one before at once; the bindings themselves take turns.
    manager.registerShortcut(HotKeyShortcut{key_code::r, carbon_modifier::option, QStringLiteral("Option+R")},
                             [&] { ++presses; });
    manager.registerShortcut(HotKeyShortcut::defaultShortcut(), [&] { ++presses; });
    ASSERT_TRUE(waitForBinding());
    EXPECT_TRUE(refusals_.empty());
    EXPECT_EQ(shortcuts_->boundTrigger(), QStringLiteral("Alt+Space"));

    KWinFakeKeyboard keyboard(session_.waylandSocketPath());
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::space}));
    ASSERT_TRUE(pumpUntil([&] { return presses == 1; }, deliveryTimeoutMs));
}

TEST_F(PortalShortcutsOnKWin, AKeyTheUserPicksInSystemSettingsIsReportedDeliveredAndKeptByTheNextRun) {
    HotKeyManager manager(*shortcuts_);
    int presses = 0;
    QStringList triggers;
    shortcuts_->setTriggerChangedHandler([&](const QString& trigger) { triggers.append(trigger); });
    manager.registerShortcut(HotKeyShortcut::defaultShortcut(), [&] { ++presses; });
    ASSERT_TRUE(waitForBinding());

    // What System Settings → Shortcuts does when the user gives our shortcut another key.
    QDBusMessage change = QDBusMessage::createMethodCall(
        QStringLiteral("org.kde.kglobalaccel"), QStringLiteral("/kglobalaccel"),
        QStringLiteral("org.kde.KGlobalAccel"), QStringLiteral("setForeignShortcut"));
    change << QStringList{QStringLiteral("parlune"), QString::fromLatin1(PortalGlobalShortcuts::shortcutId),
                          QStringLiteral("parlune"), QStringLiteral("Rewrite the selection")}
           << QVariant::fromValue(QList<int>{altR});
    ASSERT_EQ(bus_.call(change).type(), QDBusMessage::ReplyMessage);
    ASSERT_TRUE(
        pumpUntil([&] { return shortcuts_->boundTrigger() == QStringLiteral("Alt+R"); }, deliveryTimeoutMs))
        << shortcuts_->boundTrigger().toStdString();
    EXPECT_EQ(triggers.last(), QStringLiteral("Alt+R"));
    // The application stores it as its shortcut and registers that: the desktop binds it already,
    // so no new session is opened and nothing is reported again.
    const std::optional<HotKeyShortcut> chosen =
        PortalGlobalShortcuts::shortcutFor(triggers.last(), &x11::X11KeyTable::macKeyCodeFor);
    ASSERT_TRUE(chosen);
    EXPECT_EQ(chosen->keyCode, key_code::r);
    EXPECT_EQ(chosen->carbonModifiers, carbon_modifier::option);
    const qsizetype reports = triggers.size();
    manager.registerShortcut(*chosen, [&] { ++presses; });
    ASSERT_TRUE(waitForBinding());
    pumpFor(300);
    EXPECT_EQ(triggers.size(), reports);
    EXPECT_TRUE(refusals_.empty());

    KWinFakeKeyboard keyboard(session_.waylandSocketPath());
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::r}));
    ASSERT_TRUE(pumpUntil([&] { return presses == 1; }, deliveryTimeoutMs));
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::space}));
    pumpFor(500);
    EXPECT_EQ(presses, 1);

    // The next run still registers the stored Alt+Space: the user's Alt+R stands, unrefused.
    manager.unregister();
    shortcuts_.emplace(bus_, &x11::X11KeyTable::keysymFor, QStringLiteral("Rewrite the selection"));
    shortcuts_->setRefusalHandler([this](std::int32_t status) { refusals_.push_back(status); });
    ASSERT_EQ(runTask(shortcuts_->probe()), PortalGlobalShortcuts::Availability::available);
    HotKeyManager nextRun(*shortcuts_);
    nextRun.registerShortcut(HotKeyShortcut::defaultShortcut(), [&] { ++presses; });
    ASSERT_TRUE(waitForBinding());
    EXPECT_TRUE(refusals_.empty());
    EXPECT_EQ(shortcuts_->boundTrigger(), QStringLiteral("Alt+R"));
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::r}));
    ASSERT_TRUE(pumpUntil([&] { return presses == 2; }, deliveryTimeoutMs));
}

} // namespace
} // namespace parlune::portal
