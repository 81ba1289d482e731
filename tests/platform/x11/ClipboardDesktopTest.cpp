#include "DesktopTest.h"
#include "EditorWindow.h"
#include "OtherClipboardClient.h"
#include "TaskRunner.h"
#include "core/async/CancellationError.h"
#include "core/selection/TextReplacementError.h"
#include "support/RunTask.h"
#include "support/desktop/PasteInPlaceChecks.h"

#include <QElapsedTimer>
#include <QProcess>
#include <QTimer>

namespace parlune::test {
namespace {

class ClipboardDesktopTest : public DesktopTest, protected CopyPasteParts<EditorWindow> {
protected:
    void SetUp() override {
        DesktopTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        makePath(*workspace, *pasteboard, *keyboard);
        editor = std::make_unique<EditorWindow>(*workspace);
    }
    void TearDown() override {
        editor.reset();
        path.reset();
        user.reset();
        DesktopTest::TearDown();
    }

    void giveUserRichClipboard() {
        user = OtherClipboardClient::withUsersRichText(*pasteboard);
        ASSERT_TRUE(user->owns());
    }

    std::unique_ptr<OtherClipboardClient> user;
};

TEST_F(ClipboardDesktopTest, SelectionIsCopiedThenReplacedInPlaceAndTheUsersClipboardComesBackEachTime) {
    giveUserRichClipboard();
    std::optional<CapturedSelection> selection;
    ASSERT_NO_FATAL_FAILURE(
        captureAndPasteInPlace(*editor, *replacer, selection, [&] { expectUserClipboardRestored(); }));
    EXPECT_EQ(selection->applicationBundleIdentifier(), QStringLiteral("Mousepad"));
    EXPECT_EQ(selection->replacementStrategy(), SelectionReplacementStrategy::clipboardFallback);
}

TEST_F(ClipboardDesktopTest, ClipboardWrittenByAnotherClientDuringThePasteIsLeftAlone) {
    giveUserRichClipboard();
    std::optional<CapturedSelection> selection;
    ASSERT_NO_FATAL_FAILURE(captureBeta(*editor, *replacer, selection));
    std::unique_ptr<OtherClipboardClient> newcomer;
    replaceWhileAnotherClientWrites(*replacer, *selection, keys->afterKey, [&] {
        newcomer = std::make_unique<OtherClipboardClient>(
            *pasteboard, QStringList{QStringLiteral("UTF8_STRING"), QStringLiteral("newer words")});
    });
    ASSERT_TRUE(newcomer && newcomer->owns());
    EXPECT_EQ(clipboardTarget(QStringLiteral("UTF8_STRING")), QByteArrayLiteral("newer words"));
    EXPECT_EQ(clipboardTarget(QStringLiteral("TARGETS")).contains("text/html"), false);
}

TEST_F(ClipboardDesktopTest, CaptureWithAltStillHeldWaitsAndStillCopies) {
    giveUserRichClipboard();
    ASSERT_TRUE(editor->open(QStringLiteral("alpha beta gamma")));
    editor->select(6, 4);

    xdotool({QStringLiteral("keydown"), QStringLiteral("alt")});
    const auto before = keyboard->heldKeys();
    EXPECT_TRUE(before.synthetic.any()) << "xdotool types through XTest";
    EXPECT_FALSE(before.physical.any());
    QElapsedTimer timer;
    timer.start();
    const CapturedSelection selection = capture();
    const qint64 elapsed = timer.elapsed();
    // Alt was lifted only for the chord: the client that holds it still does.
    EXPECT_EQ(keyboard->heldKeys().synthetic, before.synthetic);
    xdotool({QStringLiteral("keyup"), QStringLiteral("alt")});

    EXPECT_EQ(selection.text(), QStringLiteral("beta"));
    // The chord waited for the held key, but not without bound.
    EXPECT_GE(elapsed, 1900);
    EXPECT_LT(elapsed, 4000);
    expectUserClipboardRestored();
    EXPECT_TRUE(keyboard->keysDown().none());
}

TEST_F(ClipboardDesktopTest, KeyHeldThroughAWholeRewriteIsWaitedForOnceNotPerChord) {
    // Shift, not Alt: lifting and pressing again a held Alt twice leaves mousepad in its menu bar.
    giveUserRichClipboard();
    ASSERT_TRUE(editor->open(QStringLiteral("alpha beta gamma")));
    editor->select(6, 4);
    xdotool({QStringLiteral("keydown"), QStringLiteral("shift")});
    const CapturedSelection selection = capture(); // waits the bound once
    QElapsedTimer timer;
    timer.start();
    // Validation copies again and the replacement pastes: two more chords, no more waiting.
    finish(replacer->replace(QStringLiteral("DELTA"), selection, {}));
    EXPECT_LT(timer.elapsed(), 1900);
    xdotool({QStringLiteral("keyup"), QStringLiteral("shift")});
    EXPECT_EQ(editor->savedText(), QStringLiteral("alpha DELTA gamma"));
    expectUserClipboardRestored();

    // Let go and held again: a new hold is waited for again.
    editor->select(0, 5);
    xdotool({QStringLiteral("keydown"), QStringLiteral("shift")});
    QProcess::startDetached(QStringLiteral("sh"),
                            {QStringLiteral("-c"), QStringLiteral("sleep 0.4; xdotool keyup shift")});
    timer.restart();
    EXPECT_EQ(capture().text(), QStringLiteral("alpha"));
    EXPECT_GE(timer.elapsed(), 350);
}

TEST_F(ClipboardDesktopTest, KeysReleasedDuringTheWaitAreNotPressedAgain) {
    ASSERT_TRUE(editor->open(QStringLiteral("alpha beta gamma")));
    editor->select(0, 5);
    xdotool({QStringLiteral("keydown"), QStringLiteral("shift")});
    QProcess::startDetached(QStringLiteral("sh"),
                            {QStringLiteral("-c"), QStringLiteral("sleep 0.3; xdotool keyup shift")});
    QElapsedTimer timer;
    timer.start();
    const CapturedSelection selection = capture();
    EXPECT_EQ(selection.text(), QStringLiteral("alpha"));
    EXPECT_LT(timer.elapsed(), 1900);
    EXPECT_TRUE(keyboard->keysDown().none());
}

TEST_F(ClipboardDesktopTest, WaitingForHeldKeysEndsAtOnceWhenCancelled) {
    ASSERT_TRUE(editor->open(QStringLiteral("alpha beta gamma")));
    xdotool({QStringLiteral("keydown"), QStringLiteral("shift")});
    std::stop_source stop;
    QTimer::singleShot(150, [&] { stop.request_stop(); });
    QElapsedTimer timer;
    timer.start();
    EXPECT_THROW(finish(keyboard->sendCommandKey(KeyboardEvents::keyCodeC, editor->pid(), stop.get_token())),
                 CancellationError);
    EXPECT_LT(timer.elapsed(), 1000);
    xdotool({QStringLiteral("keyup"), QStringLiteral("shift")});
    EXPECT_TRUE(keyboard->heldKeys().synthetic.none());
}

TEST_F(ClipboardDesktopTest, CaretWithoutSelectionCopiesNothing) {
    giveUserRichClipboard();
    ASSERT_TRUE(editor->open(QStringLiteral("alpha beta gamma")));
    editor->select(3, 0);
    try {
        capture();
        ADD_FAILURE() << "a caret was captured";
    } catch (const TextReplacementError& error) {
        EXPECT_EQ(error.kind(), TextReplacementError::Kind::noSelectedText);
    }
    expectUserClipboardRestored();
}

TEST_F(ClipboardDesktopTest, FocusMovedToAnotherApplicationBeforeTheReplacementIsDetected) {
    ASSERT_TRUE(editor->open(QStringLiteral("alpha beta gamma"), QStringLiteral("first.txt")));
    editor->select(6, 4);
    const CapturedSelection selection = capture();
    ASSERT_EQ(selection.text(), QStringLiteral("beta"));

    EditorWindow other(*workspace);
    ASSERT_TRUE(other.open(QStringLiteral("untouched"), QStringLiteral("second.txt")));
    try {
        finish(replacer->replace(QStringLiteral("DELTA"), selection, {}));
        ADD_FAILURE() << "replaced into the wrong window";
    } catch (const TextReplacementError& error) {
        EXPECT_EQ(error.kind(), TextReplacementError::Kind::selectionChanged);
    }
    EXPECT_EQ(other.savedText(), QStringLiteral("untouched"));
    ASSERT_TRUE(editor->activate());
    EXPECT_EQ(editor->savedText(), QStringLiteral("alpha beta gamma"));
}

TEST_F(ClipboardDesktopTest, ChordIsNotSentWhenTheTargetIsNoLongerInFront) {
    ASSERT_TRUE(editor->open(QStringLiteral("alpha beta gamma")));
    editor->select(0, 5);
    pasteboard->writeItems({PasteboardItem{{{QStringLiteral("UTF8_STRING"), QByteArrayLiteral("pasted")}}}});
    EXPECT_FALSE(finish(keyboard->sendCommandKey(KeyboardEvents::keyCodeV, editor->pid() + 100000, {})));
    EXPECT_EQ(editor->savedText(), QStringLiteral("alpha beta gamma"));
    const std::int64_t written = pasteboard->changeCount();
    EXPECT_TRUE(finish(keyboard->sendCommandKey(KeyboardEvents::keyCodeV, editor->pid(), {})));
    // The editor pastes asynchronously: it asks us for the data first.
    EXPECT_TRUE(pumpUntil([&] { return pasteboard->contentsWereFetched(written); }, 3000));
    pumpFor(100);
    EXPECT_EQ(editor->savedText(), QStringLiteral("pasted beta gamma"));
}

TEST_F(ClipboardDesktopTest, TransientTextNeverOutlivesThePasteboard) {
    pasteboard->writeItems({PasteboardItem{{{QStringLiteral("UTF8_STRING"), QByteArrayLiteral("secret")},
                                            {QStringLiteral("org.nspasteboard.TransientType"), {}}}}});
    EXPECT_EQ(clipboardTarget(QStringLiteral("UTF8_STRING")), QByteArrayLiteral("secret"));
    pasteboard.reset();
    EXPECT_EQ(clipboardTarget(QStringLiteral("UTF8_STRING")), QByteArrayLiteral("<unreadable>"));
}

TEST_F(ClipboardDesktopTest, UsersDataHeldAtExitIsHandedToASlowClipboardManager) {
    // Its copy takes seconds (a pause before each of its reads): exit waits while it still asks.
    const pid_t manager = DesktopSession::current()->spawn(
        {QStringLiteral(PARLUNE_CLIPBOARD_OWNER), QStringLiteral("--manager"), QStringLiteral("700")});
    pumpFor(300);
    giveUserRichClipboard();
    // A capture leaves us holding the user's restored data.
    ASSERT_TRUE(editor->open(QStringLiteral("alpha beta gamma")));
    editor->select(6, 4);
    ASSERT_EQ(capture().text(), QStringLiteral("beta"));
    ASSERT_TRUE(pasteboard->ownsSelection());

    path.reset();
    pasteboard.reset(); // as at exit
    expectUserClipboardRestored();
    DesktopSession::terminate(manager);
}

} // namespace
} // namespace parlune::test
