// The real `parlune` binary on the private desktop: a tray host on the session bus, a real editor,
// a clipboard owned by another client, a model file made by our writer, and the shortcut pressed
// with xdotool.
#include "DesktopSession.h"
#include "DesktopTest.h"
#include "EditorWindow.h"
#include "ParluneProcess.h"
#include "StatusNotifierHost.h"
#include "llm/testing/TestModelMaker.h"
#include "platform/linux/SessionInstance.h"
#include "platform/x11/EwmhWorkspace.h"
#include "platform/x11/X11Pasteboard.h"
#include "platform/x11/XcbConnection.h"
#include "support/RunTask.h"

#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QElapsedTimer>
#include <QSettings>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>

namespace parlune::test {
namespace {

const std::vector<std::pair<QString, QByteArray>> userClipboard{
    {QStringLiteral("UTF8_STRING"), QByteArray("user's own clip \xe2\x9c\x93")},
    {QStringLiteral("text/html"), QByteArray("<b>user's own</b> clip")},
};

class ParluneBinaryDesktopTest : public DesktopTest {
protected:
    void SetUp() override {
        DesktopTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        ASSERT_TRUE(home.isValid());
        if (!host) {
            host = std::make_unique<StatusNotifierHost>();
            ASSERT_TRUE(host->start()) << "another tray host owns the watcher name";
        }
    }
    // The host goes while the application and its bus connection still exist.
    static void TearDownTestSuite() { host.reset(); }

    void TearDown() override {
        for (const pid_t pid : helpers) {
            DesktopSession::terminate(pid);
        }
        DesktopTest::TearDown();
    }

    // The user's clipboard, served by another client under two targets.
    void giveUserAClipboard() {
        QStringList arguments{QStringLiteral(PARLUNE_CLIPBOARD_OWNER)};
        for (const auto& [target, data] : userClipboard) {
            arguments << target << QString::fromUtf8(data);
        }
        helpers.push_back(DesktopSession::current()->spawn(arguments));
        ASSERT_TRUE(
            pumpUntil([&] { return pasteboard->data(0, QStringLiteral("text/html")).has_value(); }, 5000));
    }

    void expectUserClipboardBack() {
        for (const auto& [target, data] : userClipboard) {
            std::optional<QByteArray> now;
            pumpUntil([&] { return (now = pasteboard->data(0, target)) == data; }, 3000);
            EXPECT_EQ(now, data) << target.toStdString();
        }
    }

    // Mousepad may have more than one visible window (a pop-up left from a paste); the document's
    // own is the one named after the file.
    bool activateDocument(EditorWindow& editor) {
        // The settings window is put away first, as a person would; the window manager may
        // otherwise keep the newer window in front.
        DesktopSession::run({QStringLiteral("xdotool"), QStringLiteral("search"),
                             QStringLiteral("--onlyvisible"), QStringLiteral("--name"),
                             QStringLiteral("^Parlune$"), QStringLiteral("windowminimize")});
        DesktopSession::run({QStringLiteral("xdotool"), QStringLiteral("search"),
                             QStringLiteral("--onlyvisible"), QStringLiteral("--name"),
                             QStringLiteral("document.txt"), QStringLiteral("windowactivate")});
        return pumpUntil(
                   [&] {
                       const auto front = workspace->frontmostApplication();
                       return front && front->processIdentifier == editor.pid();
                   },
                   5000) &&
               (pumpFor(200), true);
    }

    QString lastItem() const { return host->items().isEmpty() ? QString() : host->items().last(); }

    static std::unique_ptr<StatusNotifierHost> host;
    QTemporaryDir home;
    std::vector<pid_t> helpers;
};

std::unique_ptr<StatusNotifierHost> ParluneBinaryDesktopTest::host;

TEST_F(ParluneBinaryDesktopTest, ShortcutReplacesTheEditorSelectionAndGivesTheClipboardBack) {
    ParluneProcess parlune(home, {.binary = QStringLiteral(PARLUNE_BINARY)});
    ASSERT_TRUE(parlune.start());
    ASSERT_TRUE(pumpUntil([&] { return !host->items().isEmpty(); }, 10000)) << "no tray item registered";
    ASSERT_TRUE(parlune.waitForSettingsWindow(*workspace));

    EditorWindow editor(*workspace);
    const QString original =
        QStringLiteral("Keep this. the meeting is moved to next week becaus of travel. Keep this too.");
    ASSERT_TRUE(editor.open(original));
    giveUserAClipboard();
    ASSERT_TRUE(activateDocument(editor));
    editor.select(11, 51);
    pumpFor(200);
    ASSERT_EQ(
        DesktopSession::run({QStringLiteral("xdotool"), QStringLiteral("key"), QStringLiteral("alt+space")}),
        0);

    QString saved;
    ASSERT_TRUE(pumpUntil([&] { return (saved = editor.savedText()) != original; }, 20000))
        << "the selection was not replaced";
    EXPECT_TRUE(saved.startsWith(QStringLiteral("Keep this. "))) << saved.toStdString();
    EXPECT_TRUE(saved.endsWith(QStringLiteral(" Keep this too."))) << saved.toStdString();
    EXPECT_FALSE(saved.contains(QStringLiteral("becaus of travel")));
    expectUserClipboardBack();
}

TEST_F(ParluneBinaryDesktopTest, TrayMenuOverDbusListsTheStylesAndSwitchesTheMode) {
    ParluneProcess parlune(home, {.binary = QStringLiteral(PARLUNE_BINARY)});
    ASSERT_TRUE(parlune.start());
    ASSERT_TRUE(pumpUntil([&] { return StatusNotifierHost::readMenu(lastItem()).has_value(); }, 10000));
    const std::optional<QVariant> toolTip =
        StatusNotifierHost::itemProperty(lastItem(), QStringLiteral("ToolTip"));
    ASSERT_TRUE(toolTip.has_value());

    const StatusNotifierHost::MenuEntry menu = *StatusNotifierHost::readMenu(lastItem());
    QStringList labels;
    const StatusNotifierHost::MenuEntry* style = nullptr;
    for (const StatusNotifierHost::MenuEntry& entry : menu.children) {
        labels << (entry.type == QLatin1String("separator") ? QStringLiteral("-") : entry.label);
        if (entry.label == QLatin1String("Style")) {
            style = &entry;
        }
    }
    EXPECT_EQ(labels, (QStringList{QStringLiteral("Style"), QStringLiteral("-"), QStringLiteral("Settings…"),
                                   QStringLiteral("Check for Updates…"), QStringLiteral("-"),
                                   QStringLiteral("Quit Parlune")}));
    ASSERT_NE(style, nullptr);
    ASSERT_EQ(style->children.size(), 5u);
    EXPECT_EQ(style->children[0].toggleState, 1); // "Improve clarity", the default
    const int casual = style->children[3].id;
    EXPECT_EQ(style->children[3].label, QStringLiteral("Casual"));

    ASSERT_TRUE(StatusNotifierHost::click(lastItem(), casual));
    const QString settingsFile = home.filePath(QStringLiteral("config/parlune/parlune.conf"));
    EXPECT_TRUE(pumpUntil(
        [&] {
            const std::optional<StatusNotifierHost::MenuEntry> now = StatusNotifierHost::readMenu(lastItem());
            return now && !now->children.empty() && now->children[0].children.size() == 5 &&
                   now->children[0].children[3].toggleState == 1 &&
                   now->children[0].children[0].toggleState == 0;
        },
        5000));
    EXPECT_EQ(QSettings(settingsFile, QSettings::IniFormat).value(QStringLiteral("rewriteMode")).toString(),
              QStringLiteral("Casual"));
}

TEST_F(ParluneBinaryDesktopTest, SecondLaunchAndTheRewriteCommandReachTheRunningInstance) {
    ParluneProcess parlune(home, {.binary = QStringLiteral(PARLUNE_BINARY)});
    ASSERT_TRUE(parlune.start());
    // A second start asks the first to show its settings and ends.
    EXPECT_EQ(DesktopSession::run({QStringLiteral(PARLUNE_BINARY)}, nullptr, 10000), 0);
    EXPECT_EQ(DesktopSession::run({QStringLiteral(PARLUNE_BINARY), QStringLiteral("--rewrite-selection")},
                                  nullptr, 10000),
              0);
    parlune.stop();
    QByteArray output;
    EXPECT_EQ(DesktopSession::run({QStringLiteral(PARLUNE_BINARY), QStringLiteral("--rewrite-selection")},
                                  &output, 10000),
              1);
}

// Quitting at any moment of a rewrite (capture, model, paste) ends promptly, cleanly, and leaves
// the user's clipboard as it was. A clipboard manager keeps the data once its owner quits, as on
// a real desktop.
TEST_F(ParluneBinaryDesktopTest, QuitInTheMiddleOfARewriteIsPromptAndLeavesTheClipboard) {
    helpers.push_back(DesktopSession::current()->spawn(
        {QStringLiteral(PARLUNE_CLIPBOARD_OWNER), QStringLiteral("--manager")}));
    EditorWindow editor(*workspace);
    const QString original = QStringLiteral("one two three four five six seven eight nine ten");
    ASSERT_TRUE(editor.open(original));
    // What quitting costs on this machine at this moment with nothing in flight: a loaded machine
    // slows both alike, so "prompt" is measured against it rather than against the clock alone.
    ParluneProcess idle(home, {.binary = QStringLiteral(PARLUNE_BINARY)});
    ASSERT_TRUE(idle.start());
    ASSERT_TRUE(idle.waitForSettingsWindow(*workspace));
    const qint64 idleExitMs = idle.terminate();
    ASSERT_GE(idleExitMs, 0) << "parlune did not exit";
    for (const int delayMs : {0, 40, 120, 300}) {
        SCOPED_TRACE(delayMs);
        ParluneProcess parlune(home, {.binary = QStringLiteral(PARLUNE_BINARY)});
        ASSERT_TRUE(parlune.start());
        ASSERT_TRUE(parlune.waitForSettingsWindow(*workspace));
        giveUserAClipboard();
        ASSERT_TRUE(activateDocument(editor));
        editor.select(4, 13);
        pumpFor(150);
        ASSERT_EQ(DesktopSession::run(
                      {QStringLiteral("xdotool"), QStringLiteral("key"), QStringLiteral("alt+space")}),
                  0);
        pumpFor(delayMs);
        int status = 0;
        const qint64 exitMs = parlune.terminate(&status);
        EXPECT_GE(exitMs, 0) << "parlune did not exit";
        // The clean-up (model stopped at its next token, clipboard put back) adds well under a second.
        EXPECT_LT(exitMs, idleExitMs + 1000) << "an idle quit took " << idleExitMs << " ms";
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "status " << status << "\n"
                                                                   << parlune.log().toStdString();
        expectUserClipboardBack();
    }
}

} // namespace
} // namespace parlune::test
