#include "app/AppUpdaterController.h"
#include "app/OptionKeyRecorderView.h"
#include "app/PreferencesSectionView.h"
#include "app/SetupSectionView.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"
#include "platform/linux/AutostartEntry.h"
#include "support/FakeCredentialStore.h"
#include "support/FakeUserDefaults.h"
#include "support/QtPrinters.h"
#include "support/ScriptedRewriteEngine.h"

#include <QComboBox>
#include <QCoreApplication>
#include <QFile>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPlainTextEdit>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <X11/keysym.h>

namespace parlune::app {
namespace {

QKeyEvent keyPress(int qtKey, std::uint32_t keysym, Qt::KeyboardModifiers modifiers = Qt::NoModifier,
                   const QString& text = {}) {
    return QKeyEvent(QEvent::KeyPress, qtKey, modifiers, 0, keysym, 0, text);
}

class RecorderTest : public ::testing::Test {
protected:
    void press(QKeyEvent event) { QCoreApplication::sendEvent(&recorder, &event); }
    void click() {
        QMouseEvent event(QEvent::MouseButtonPress, QPointF(5, 5), QPointF(5, 5), Qt::LeftButton,
                          Qt::LeftButton, Qt::NoModifier);
        QCoreApplication::sendEvent(&recorder, &event);
    }

    OptionKeyRecorderView recorder;
    std::vector<HotKeyShortcut> recorded;
    void SetUp() override {
        recorder.setOnShortcut([this](const HotKeyShortcut& shortcut) { recorded.push_back(shortcut); });
    }
};

TEST_F(RecorderTest, NamedKeysBecomeAltShortcutsWhateverElseIsHeld) {
    const struct {
        int qtKey;
        std::uint32_t keysym;
        Qt::KeyboardModifiers held;
        HotKeyShortcut expected;
    } cases[] = {
        {Qt::Key_Tab, XK_Tab, Qt::NoModifier, {48, 2048, QStringLiteral("Alt+Tab")}},
        {Qt::Key_Return, XK_Return, Qt::NoModifier, {36, 2048, QStringLiteral("Alt+Return")}},
        {Qt::Key_Escape, XK_Escape, Qt::NoModifier, {53, 2048, QStringLiteral("Alt+Escape")}},
        {Qt::Key_Space, XK_space, Qt::NoModifier, {49, 2048, QStringLiteral("Alt+Space")}},
        // Super+K and Shift+R: the held modifiers are ignored; letters keep their key code.
        {Qt::Key_K, XK_k, Qt::MetaModifier, {40, 2048, QStringLiteral("Alt+K")}},
        {Qt::Key_R, XK_R, Qt::ShiftModifier, {15, 2048, QStringLiteral("Alt+R")}},
    };
    for (const auto& c : cases) {
        click();
        ASSERT_TRUE(recorder.isRecording());
        EXPECT_EQ(recorder.labelText(), QStringLiteral("PRESS KEY"));
        press(keyPress(c.qtKey, c.keysym, c.held));
        ASSERT_FALSE(recorded.empty());
        EXPECT_EQ(recorded.back(), c.expected);
        EXPECT_FALSE(recorder.isRecording());
        EXPECT_EQ(recorder.currentKeyName(), QString(c.expected.displayName).remove(QStringLiteral("Alt+")));
    }
}

TEST_F(RecorderTest, KeysWithoutANameAskToTryAgainAndKeepRecording) {
    click();
    press(keyPress(Qt::Key_F1, XK_F1)); // types nothing
    EXPECT_EQ(recorder.labelText(), QStringLiteral("Try again"));
    press(keyPress(Qt::Key_unknown, 0x20ac)); // a keysym no stored key code names
    EXPECT_EQ(recorder.labelText(), QStringLiteral("Try again"));
    press(keyPress(Qt::Key_Alt, XK_Alt_L, Qt::AltModifier)); // a modifier alone waits for the key
    EXPECT_EQ(recorder.labelText(), QStringLiteral("Try again"));
    EXPECT_TRUE(recorder.isRecording());
    EXPECT_TRUE(recorded.empty());

    QFocusEvent focusOut(QEvent::FocusOut);
    QCoreApplication::sendEvent(&recorder, &focusOut);
    EXPECT_FALSE(recorder.isRecording());
    EXPECT_EQ(recorder.labelText(), QStringLiteral("Space"));
    recorder.setKeyName(QString());
    EXPECT_EQ(recorder.currentKeyName(), QStringLiteral("Space"));
}

TEST(PreferencesSectionTest, SwitchingStylesWhileEditingLosesNoRules) {
    parlune::testing::FakeUserDefaults defaults;
    parlune::testing::FakeCredentialStore credentials;
    SettingsStore settings(defaults, credentials, false);
    DiagnosticsLogger diagnostics;
    PreferencesSectionView view(settings, diagnostics, nullptr);

    view.rulesEditor().setPlainText(QStringLiteral("British spelling"));
    // Chosen before the save delay has passed: the text still belongs to the first style.
    view.styleChoice().setCurrentIndex(3);
    view.styleChoice().activated(3);
    EXPECT_EQ(settings.rewriteMode(), RewriteMode::casual);
    EXPECT_EQ(view.rulesEditor().toPlainText(), QString());
    view.rulesEditor().setPlainText(QStringLiteral("No emoji"));
    view.saveRules();

    settings.setRewriteMode(RewriteMode::improveClarity); // from the tray menu
    view.refresh();
    EXPECT_EQ(view.rulesEditor().toPlainText(), QStringLiteral("British spelling"));
    EXPECT_EQ(settings.writingPreferences(RewriteMode::casual), QStringLiteral("No emoji"));
    EXPECT_EQ(diagnostics.entries().size(), 1u);
}

TEST(SetupSectionTest, WhereTheDesktopOwnsTheShortcutTheKeyBoxGivesWayToTheBindingInstructions) {
    parlune::testing::FakeUserDefaults defaults;
    parlune::testing::FakeCredentialStore credentials;
    SettingsStore settings(defaults, credentials, false);
    DiagnosticsLogger diagnostics;
    parlune::testing::ScriptedRewriteEngine engine;
    AppReadiness readiness(engine, [] { return true; });
    const QString instructions =
        QStringLiteral("Add the line \"bindsym Mod1+space exec parlune --rewrite-selection\".");

    SetupSectionView bound(settings, readiness, diagnostics, {}, {}, nullptr, instructions);
    bound.show();
    EXPECT_FALSE(bound.recorder().isVisible());
    EXPECT_EQ(bound.hotKeyDetail(), instructions);
    // Once the command has arrived the instructions stay, for the next time the user looks.
    readiness.setHotKeyReady(true);
    bound.refresh();
    EXPECT_TRUE(bound.hotKeyDetail().startsWith(QStringLiteral("The bound command reaches Parlune.")));
    EXPECT_TRUE(bound.hotKeyDetail().endsWith(instructions));

    SetupSectionView registered(settings, readiness, diagnostics, {}, {}, nullptr);
    registered.show();
    EXPECT_TRUE(registered.recorder().isVisible());
    EXPECT_EQ(registered.hotKeyDetail(), readiness.hotKeyStatusText());
}

TEST(AutostartEntryTest, EntryIsWrittenWithAQuotedCommandAndRemoved) {
    QTemporaryDir dir;
    AutostartEntry entry(QStringLiteral("/opt/my apps/parlune"),
                         dir.filePath(QStringLiteral("autostart/parlune.desktop")));
    EXPECT_FALSE(entry.isEnabled());
    ASSERT_TRUE(entry.setEnabled(true));
    EXPECT_TRUE(entry.isEnabled());
    QFile file(entry.path());
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_TRUE(file.readAll().contains("\nExec=\"/opt/my apps/parlune\"\n"));
    ASSERT_TRUE(entry.setEnabled(false));
    EXPECT_FALSE(entry.isEnabled());
    EXPECT_TRUE(entry.setEnabled(false)); // already off
}

TEST(AppUpdaterControllerTest, OnlyTheProductionFeedAndKeyGetAnUpdaterOthersOpenTheDownloadPage) {
    std::vector<QUrl> opened;
    bool openSucceeds = true;
    const AppUpdaterController::Hooks hooks{.openUrl = [&](const QUrl& url) {
        opened.push_back(url);
        return openSucceeds;
    }};
    const QString feed = UpdateConfiguration::productionAppcastURL().toString();
    const QString key = QString::fromLatin1(UpdateConfiguration::productionSparklePublicEDKey);

    AppUpdaterController development(UpdateConfiguration::production(), {}, QStringLiteral("0.1.0"), hooks);
    EXPECT_FALSE(development.hasUpdater());
    EXPECT_TRUE(development.canCheckForUpdates());
    EXPECT_TRUE(development.checkForUpdates());
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_EQ(opened[0], QUrl(QStringLiteral("https://parlune.app/download")));
    openSucceeds = false;
    EXPECT_FALSE(development.checkForUpdates()); // the caller then tells the user where to go

    AppUpdaterController trailingSlash(UpdateConfiguration::production(), {feed + u'/', key},
                                       QStringLiteral("0.1.0"), hooks);
    EXPECT_FALSE(trailingSlash.hasUpdater());
    AppUpdaterController production(UpdateConfiguration::production(), {feed, key}, QStringLiteral("0.1.0"),
                                    hooks);
    EXPECT_TRUE(production.hasUpdater());
    EXPECT_TRUE(production.canCheckForUpdates());
    EXPECT_EQ(opened.size(), 2u); // nothing opened, nothing fetched by just existing
}

} // namespace
} // namespace parlune::app
