// The real `parlune` on a private KDE Wayland session: the shortcut reaches it through the
// global-shortcuts portal, Control+C and Control+V go through the remote-desktop portal, the
// frontmost application comes from the accessibility bus, and the clipboard through KWin's
// data-control; the rewrite comes from a model our writer made.
#include "KWinFakeKeyboard.h"
#include "KWinTest.h"
#include "ParluneProcess.h"
#include "platform/atspi/AtspiFocusWorkspace.h"
#include "platform/atspi/AtspiWorker.h"
#include "support/RunTask.h"

#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace parlune::test {
namespace {

class ParluneBinaryOnKWin : public KWinTest {
protected:
    void SetUp() override {
        KWinTest::SetUp();
        if (setUpFailed()) {
            return;
        }
        enterSession();
        // So that the settings window is seen to come to the front.
        qputenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
    }
    void TearDown() override {
        endPrograms({editor_.get(), userClipboard_.get()});
        parlune_.reset();
        KWinTest::TearDown();
    }

    QByteArray wlPaste(const QStringList& arguments) {
        auto paste = session_.launch(QStringLiteral("wl-paste"), arguments);
        paste->waitForFinished(5000);
        return paste->readAllStandardOutput();
    }

    QByteArray editorText() const {
        QFile text(file_);
        return text.open(QIODevice::ReadOnly) ? text.readAll() : QByteArray();
    }

    QTemporaryDir home_;
    QString file_;
    std::unique_ptr<ParluneProcess> parlune_;
    std::unique_ptr<QProcess> userClipboard_;
    std::unique_ptr<QProcess> editor_;
};

TEST_F(ParluneBinaryOnKWin, ShortcutThroughThePortalReplacesTheSelectionAndGivesTheClipboardBack) {
    // The user's clipboard, offered by another client in several types.
    userClipboard_ = session_.launch(
        QStringLiteral("wl-copy"), {QStringLiteral("--foreground"), QStringLiteral("the user's own words")});
    ASSERT_TRUE(userClipboard_->waitForStarted());
    QByteArray userTypes;
    ASSERT_TRUE(
        pumpUntil([&] { return !(userTypes = wlPaste({QStringLiteral("--list-types")})).isEmpty(); }, 5000));

    auto worker = atspi::AtspiWorker::start();
    ASSERT_TRUE(worker->waitForBus(10'000)) << "no accessibility bus on the session";
    atspi::AtspiFocusWorkspace focus(worker);
    parlune_ = std::make_unique<ParluneProcess>(
        home_, ParluneProcess::Options{.binary = QStringLiteral(PARLUNE_BINARY),
                                       .platform = QStringLiteral("wayland")});
    ASSERT_TRUE(parlune_->start()) << parlune_->log().toStdString();
    ASSERT_TRUE(parlune_->waitForSettingsWindow(focus)) << parlune_->log().toStdString();

    const QByteArray original =
        "Keep this. the meeting is moved to next week becaus of travel. Keep this too.";
    file_ = home_.filePath(QStringLiteral("text.txt"));
    QFile text(file_);
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.write(original);
    text.close();
    editor_ = session_.launch(QStringLiteral(PARLUNE_QT_EDITOR),
                              {file_, QStringLiteral("11"), QStringLiteral("51")});
    ASSERT_TRUE(editor_->waitForStarted());
    ASSERT_TRUE(pumpUntil([&] { return editor_->readAllStandardOutput().contains("focused"); }, 20'000));
    ASSERT_TRUE(pumpUntil(
        [&] {
            const auto front = focus.frontmostApplication();
            return front && front->processIdentifier == static_cast<ProcessId>(editor_->processId());
        },
        10'000));

    // The default shortcut, Alt+Space, bound through the portal at Parlune's start (Qt's key code,
    // as the shortcut daemon keeps it).
    ASSERT_TRUE(pumpUntil(
        [&] {
            return keysInShortcutDaemon(QStringLiteral("parlune"), QStringLiteral("rewrite-selection")) ==
                   QList<int>{0x08000000 | 0x20};
        },
        30'000))
        << parlune_->log().toStdString();
    KWinFakeKeyboard keyboard(session_.waylandSocketPath());
    ASSERT_TRUE(keyboard.isReady());
    ASSERT_TRUE(keyboard.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::space}));

    QByteArray saved;
    ASSERT_TRUE(pumpUntil([&] { return (saved = editorText()) != original; }, 30'000))
        << "the selection was not replaced\n"
        << parlune_->log().toStdString();
    pumpFor(1000); // the rest of the paste, if it came in pieces
    saved = editorText();
    EXPECT_TRUE(saved.startsWith("Keep this. ")) << saved.toStdString();
    EXPECT_TRUE(saved.endsWith(" Keep this too.")) << saved.toStdString();
    EXPECT_FALSE(saved.contains("becaus of travel"));
    pumpUntil([&] { return wlPaste({QStringLiteral("--list-types")}) == userTypes; }, 3000);
    EXPECT_EQ(wlPaste({QStringLiteral("--list-types")}), userTypes);
    EXPECT_EQ(
        wlPaste({QStringLiteral("--no-newline"), QStringLiteral("--type"), QStringLiteral("text/plain")}),
        QByteArrayLiteral("the user's own words"));
}

} // namespace
} // namespace parlune::test
