// The clipboard path on a KDE session with the ports the application takes there: KWin's
// data-control for the clipboard, the remote-desktop portal for the keys and the accessibility
// focus for the application in front; wl-copy and wl-paste are the user's other programs.
#include "CompositorConnection.h"
#include "InterceptedKeyboard.h"
#include "KWinFakeKeyboard.h"
#include "KWinTest.h"
#include "NoAccessibilityBus.h"
#include "TaskRunner.h"
#include "WlClipboard.h"

#include "core/async/Clock.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextReplacementError.h"
#include "core/selection/TextSelectionReplacer.h"
#include "platform/atspi/AtspiAccessibility.h"
#include "platform/atspi/AtspiFocusWorkspace.h"
#include "platform/atspi/AtspiWorker.h"
#include "platform/linux/portal/PortalRemoteDesktopKeyboard.h"
#include "platform/wayland/DataControlPasteboard.h"
#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/WaylandPrimarySelection.h"
#include "platform/x11/X11KeyTable.h"
#include "support/FakeUserDefaults.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace parlune::test {
namespace {

class ClipboardOnKWin : public KWinTest {
protected:
    void SetUp() override {
        KWinTest::SetUp();
        if (setUpFailed()) {
            return;
        }
        enterSession();
        connection_ = test::connectToCompositor();
        ASSERT_TRUE(connection_);
        pasteboard_ = std::make_unique<wayland::DataControlPasteboard>(*connection_);
        ASSERT_TRUE(pasteboard_->isUsable());
        worker_ = atspi::AtspiWorker::start();
        ASSERT_TRUE(worker_->waitForBus(10'000)) << "no accessibility bus on the session";
        workspace_ = std::make_unique<atspi::AtspiFocusWorkspace>(worker_);
        portalKeyboard_ = std::make_unique<portal::PortalRemoteDesktopKeyboard>(
            bus_, *workspace_, settings_, &x11::X11KeyTable::keysymFor, [] { return false; });
        ASSERT_EQ(runTask(portalKeyboard_->probe()),
                  portal::PortalRemoteDesktopKeyboard::Availability::available);
        keys_ = std::make_unique<InterceptedKeyboard>(*portalKeyboard_);
        clipboard_ = std::make_unique<ClipboardManager>(*pasteboard_);
    }
    // The selection is taken through `accessibility`: the real port, or none to force the copy.
    void useAccessibility(AccessibilityApi& accessibility) {
        replacer_ = std::make_unique<TextSelectionReplacer>(accessibility, *workspace_, *clipboard_, *keys_,
                                                            AppCompatibilityRegistry::defaultRegistry(),
                                                            SystemClock::shared());
    }
    void TearDown() override {
        replacer_.reset();
        accessibility_.reset();
        clipboard_.reset();
        keys_.reset();
        portalKeyboard_.reset();
        workspace_.reset();
        pasteboard_.reset();
        connection_.reset();
        endPrograms({editor_.get(), terminal_.get()});
        KWinTest::TearDown();
    }

    // Starts the Qt editor on `text` with `length` characters from `from` selected, and waits until
    // the port knows it is in front.
    void openEditor(const QByteArray& text, int from, int length) {
        editorFile_ = directory_.filePath(QStringLiteral("text.txt"));
        QFile file(editorFile_);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(text);
        file.close();
        editor_ = session_.launch(QStringLiteral(PARLUNE_QT_EDITOR),
                                  {editorFile_, QString::number(from), QString::number(length)});
        ASSERT_TRUE(editor_->waitForStarted());
        const auto pid = static_cast<ProcessId>(editor_->processId());
        ASSERT_TRUE(pumpUntil(
            [&] {
                const auto front = workspace_->frontmostApplication();
                return front && front->processIdentifier == pid;
            },
            20'000));
    }

    QByteArray editorText() const {
        QFile file(editorFile_);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    testing::FakeUserDefaults settings_;
    NoAccessibilityBus noAccessibility_;
    std::unique_ptr<wayland::WaylandConnection> connection_;
    std::unique_ptr<wayland::DataControlPasteboard> pasteboard_;
    std::shared_ptr<atspi::AtspiWorker> worker_;
    std::unique_ptr<atspi::AtspiFocusWorkspace> workspace_;
    std::unique_ptr<portal::PortalRemoteDesktopKeyboard> portalKeyboard_;
    std::unique_ptr<InterceptedKeyboard> keys_;
    std::unique_ptr<ClipboardManager> clipboard_;
    std::unique_ptr<atspi::AtspiAccessibility> accessibility_;
    std::unique_ptr<TextSelectionReplacer> replacer_;
    QTemporaryDir directory_;
    QString editorFile_;
    std::unique_ptr<QProcess> editor_;
    std::unique_ptr<QProcess> terminal_;
};

TEST_F(ClipboardOnKWin, ClipboardWrittenByAnotherClientDuringThePasteIsLeftAlone) {
    useAccessibility(noAccessibility_);
    WlClipboard::copy(QByteArrayLiteral("the user's own words"), QStringLiteral("text/plain;charset=utf-8"));
    ASSERT_NO_FATAL_FAILURE(openEditor("alpha beta gamma", 6, 4));
    const CapturedSelection selection = finish(replacer_->capture({}));
    ASSERT_EQ(selection.text(), QStringLiteral("beta"));
    // The copy gave the user's clipboard back: below, leaving the newer words is the restore's choice.
    ASSERT_TRUE(pumpUntil(
        [&] {
            return WlClipboard::paste(QStringLiteral("text/plain;charset=utf-8")) == "the user's own words";
        },
        3000));

    keys_->afterKey = [&](std::uint16_t key) {
        if (key == KeyboardEvents::keyCodeV) {
            WlClipboard::copy(QByteArrayLiteral("newer words"), QStringLiteral("text/plain;charset=utf-8"));
        }
    };
    try {
        finish(replacer_->replace(QStringLiteral("DELTA"), selection, {}));
    } catch (const TextReplacementError&) {
        // Whether the paste was confirmed does not matter here; the clipboard does.
    }
    // Which text the editor took depends on when the newer words came; that it pasted, does not.
    EXPECT_TRUE(pumpUntil([&] { return editorText() != "alpha beta gamma"; }, 5000));
    pumpFor(500);
    EXPECT_EQ(WlClipboard::paste(QStringLiteral("text/plain;charset=utf-8")),
              QByteArrayLiteral("newer words"));
}

// Konsole runs a raw-mode `cat` that writes every byte it reads to a file: a Control+C would arrive
// there as byte 3 (and in cooked mode end the program). Konsole copies with Control+Shift+C only
// while something is selected; otherwise that chord too reaches the program as byte 3, so no chord
// is sent at all: the selection is read from the primary selection. Konsole is on the accessibility
// bus as Plasma's accessibility setting has it, and its terminal tells the selection there.
TEST_F(ClipboardOnKWin, TerminalNeverReceivesControlC) {
    const QString typed = directory_.filePath(QStringLiteral("typed.bin"));
    terminal_ = session_.launch(
        QStringLiteral("env"),
        {QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1"), QStringLiteral("konsole"),
         QStringLiteral("--separate"), QStringLiteral("--nofork"), QStringLiteral("-e"), QStringLiteral("sh"),
         QStringLiteral("-c"),
         QStringLiteral("stty raw -echo; printf ready > \"$0.ready\"; exec cat > \"$0\""), typed});
    ASSERT_TRUE(terminal_->waitForStarted());
    const auto pid = static_cast<ProcessId>(terminal_->processId());
    ASSERT_TRUE(pumpUntil([&] { return QFile::exists(typed + QStringLiteral(".ready")); }, 20'000));
    ASSERT_TRUE(pumpUntil(
        [&] {
            const auto front = workspace_->frontmostApplication();
            return front && front->processIdentifier == pid;
        },
        20'000));
    ASSERT_EQ(workspace_->bundleIdentifier(pid), QStringLiteral("konsole"));
    // The terminal has the keyboard: a key pressed now reaches its `cat`.
    KWinFakeKeyboard keyboard(session_.waylandSocketPath());
    ASSERT_TRUE(keyboard.isReady());
    const auto readTyped = [&] {
        QFile file(typed);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    };
    ASSERT_TRUE(pumpUntil(
        [&] {
            keyboard.tap({KWinFakeKeyboard::r});
            pumpFor(100);
            return readTyped().contains('r');
        },
        10'000));
    accessibility_ = std::make_unique<atspi::AtspiAccessibility>(
        *workspace_, [] { return true; }, worker_);
    useAccessibility(*accessibility_);
    // KWin carries the primary selection through data-control, so a terminal is never sent a key.
    ASSERT_TRUE(pasteboard_->carriesPrimary());
    wayland::WaylandPrimarySelection primary(*pasteboard_, *workspace_);
    replacer_->setPrimarySelection(&primary);
    try {
        finish(replacer_->capture({}));
        ADD_FAILURE() << "text was captured from a terminal with nothing selected";
    } catch (const TextReplacementError& error) {
        EXPECT_EQ(error.kind(), TextReplacementError::Kind::noSelectedText);
    }
    EXPECT_TRUE(keys_->sent.empty());
    pumpFor(500);
    EXPECT_FALSE(readTyped().contains('\x03')) << readTyped().toHex().constData();
}

} // namespace
} // namespace parlune::test
