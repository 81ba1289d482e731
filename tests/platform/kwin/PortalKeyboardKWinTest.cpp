#include "KWinTest.h"

#include "platform/linux/portal/PortalRemoteDesktopKeyboard.h"
#include "platform/x11/X11KeyTable.h"
#include "support/FakeUserDefaults.h"
#include "support/FixedFrontApplication.h"
#include "support/RunTask.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <optional>

namespace parlune::portal {
namespace {

using test::pumpFor;
using test::pumpUntil;
using test::runTask;

class PortalKeyboardOnKWin : public test::KWinTest {
protected:
    void SetUp() override {
        KWinTest::SetUp();
        if (setUpFailed()) {
            return;
        }
        keyboard_.emplace(bus_, workspace_, settings_, &x11::X11KeyTable::keysymFor,
                          [this] { return held_; });
        ASSERT_EQ(runTask(keyboard_->probe()), PortalRemoteDesktopKeyboard::Availability::available);

        // The user's clipboard holds the text a paste inserts; the editor shows "hello", caret first.
        clipboard_ = session_.launch(QStringLiteral("wl-copy"),
                                     {QStringLiteral("--foreground"), QStringLiteral("pasted")});
        ASSERT_TRUE(clipboard_->waitForStarted());
        file_ = directory_.filePath(QStringLiteral("text.txt"));
        QFile text(file_);
        ASSERT_TRUE(text.open(QIODevice::WriteOnly));
        text.write("hello");
        text.close();
        editor_ = session_.launch(QStringLiteral(PARLUNE_QT_EDITOR), {file_});
        ASSERT_TRUE(editor_->waitForStarted());
        workspace_.front = static_cast<ProcessId>(editor_->processId());
        // Until the window has the keyboard focus nothing can reach it.
        ASSERT_TRUE(pumpUntil([&] { return editor_->readAllStandardOutput().contains("focused"); }, 20'000));
    }
    void TearDown() override {
        keyboard_.reset();
        endPrograms({editor_.get(), clipboard_.get()});
        KWinTest::TearDown();
    }

    QByteArray editorText() const {
        QFile text(file_);
        return text.open(QIODevice::ReadOnly) ? text.readAll() : QByteArray();
    }

    // Which application is in front is the workspace port's business, tested with it; here it
    // only decides where chords may go.
    test::FixedFrontApplication workspace_;
    testing::FakeUserDefaults settings_;
    bool held_ = false;
    std::optional<PortalRemoteDesktopKeyboard> keyboard_;
    QTemporaryDir directory_;
    QString file_;
    std::unique_ptr<QProcess> clipboard_;
    std::unique_ptr<QProcess> editor_;
};

TEST_F(PortalKeyboardOnKWin, ControlVThroughThePortalPastesIntoTheEditorInFront) {
    ASSERT_TRUE(runTask(keyboard_->sendCommandKey(KeyboardEvents::keyCodeV, workspace_.front, {}), 30'000));
    EXPECT_TRUE(keyboard_->isStarted());
    EXPECT_TRUE(pumpUntil([&] { return editorText() == "pastedhello"; }, 5000)) << editorText().toStdString();
    // Debian 12's portal is version 1: no consent to keep, so nothing is stored.
    if (keyboard_->portalVersion() < 2) {
        EXPECT_FALSE(settings_.string(QString::fromLatin1(PortalRemoteDesktopKeyboard::restoreTokenKey)));
    }
}

TEST_F(PortalKeyboardOnKWin, NothingIsTypedWhenAnotherApplicationIsInFront) {
    const ProcessId editor = workspace_.front;
    workspace_.front = editor + 1;
    EXPECT_FALSE(runTask(keyboard_->sendCommandKey(KeyboardEvents::keyCodeV, editor, {}), 30'000));
    pumpFor(500);
    EXPECT_EQ(editorText(), "hello");
}

TEST_F(PortalKeyboardOnKWin, TheChordWaitsUntilTheShortcutIsLetGo) {
    ASSERT_TRUE(runTask(keyboard_->start(), 30'000));
    held_ = true;
    TaskOutcome<bool> paste(keyboard_->sendCommandKey(KeyboardEvents::keyCodeV, workspace_.front, {}));
    pumpFor(700);
    EXPECT_FALSE(paste.isFinished());
    EXPECT_EQ(editorText(), "hello");
    held_ = false;
    ASSERT_TRUE(pumpUntil([&] { return paste.isFinished(); }, 5000));
    EXPECT_TRUE(paste.take());
    EXPECT_TRUE(pumpUntil([&] { return editorText() == "pastedhello"; }, 5000)) << editorText().toStdString();
}

} // namespace
} // namespace parlune::portal
