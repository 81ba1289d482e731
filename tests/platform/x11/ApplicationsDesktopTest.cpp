// The replacer against real applications of other toolkits: a terminal, a Qt 5 editor with and
// without its accessibility bridge, and a browser's three kinds of text field.
#include "DesktopTest.h"
#include "EditorWindow.h"
#include "OtherClipboardClient.h"
#include "TargetApplications.h"
#include "TaskRunner.h"
#include "core/async/Clock.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextReplacementError.h"
#include "core/selection/TextSelectionReplacer.h"
#include "platform/atspi/AtspiAccessibility.h"
#include "platform/x11/X11PrimarySelection.h"

#include <QStandardPaths>

#include <signal.h>

namespace parlune::test {
namespace {

void keys(const QStringList& chords) {
    DesktopSession::run(QStringList{QStringLiteral("xdotool"), QStringLiteral("key"),
                                    QStringLiteral("--delay"), QStringLiteral("30")} +
                        chords);
}

class ApplicationsDesktopTest : public DesktopTest {
protected:
    void SetUp() override {
        DesktopTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        accessibility = std::make_unique<atspi::AtspiAccessibility>(
            *workspace, [this] { return keyboard->isAvailable(); });
        primary = std::make_unique<x11::X11PrimarySelection>(*connection, *workspace);
        clipboard = std::make_unique<ClipboardManager>(*pasteboard);
        replacer = std::make_unique<TextSelectionReplacer>(*accessibility, *workspace, *clipboard, *keyboard,
                                                           AppCompatibilityRegistry::defaultRegistry(),
                                                           SystemClock::shared());
        replacer->setPrimarySelection(primary.get());
    }
    void TearDown() override {
        replacer.reset();
        clipboard.reset();
        primary.reset();
        accessibility.reset();
        user.reset();
        DesktopTest::TearDown();
    }

    static void requireProgram(const char* name) {
        if (QStandardPaths::findExecutable(QString::fromLatin1(name)).isEmpty()) {
            GTEST_SKIP() << name << " is not installed (scripts/setup.sh installs it)";
        }
    }

    void giveUserRichClipboard() {
        user = OtherClipboardClient::withUsersRichText(*pasteboard);
        ASSERT_TRUE(user->owns());
    }

    // Captures, replaces and checks that the user's clipboard came back byte for byte.
    void rewrite(const QString& expectedSelection, const QString& replacement) {
        const CapturedSelection selection = finish(replacer->capture({}));
        ASSERT_EQ(selection.text(), expectedSelection);
        expectUserClipboardRestored();
        finish(replacer->replace(replacement, selection, {}));
        expectUserClipboardRestored();
    }

    std::unique_ptr<atspi::AtspiAccessibility> accessibility;
    std::unique_ptr<x11::X11PrimarySelection> primary;
    std::unique_ptr<ClipboardManager> clipboard;
    std::unique_ptr<TextSelectionReplacer> replacer;
    std::unique_ptr<OtherClipboardClient> user;
};

// --- a terminal ------------------------------------------------------------------------------

// xterm runs `cat`, writing what it reads to the window's file: a Control+C would end it (and
// close xterm), a Control+V would put a literal ^V into the line being typed.
TEST_F(ApplicationsDesktopTest, TerminalSelectionIsReadFromPrimaryAndNeitherProgramNorTypedLineIsDisturbed) {
    requireProgram("xterm");
    giveUserRichClipboard();
    EditorWindow terminal(*workspace,
                          {QStringLiteral("xterm"), QStringLiteral("-fn"), QStringLiteral("fixed"),
                           QStringLiteral("-geometry"), QStringLiteral("60x6"), QStringLiteral("-e"),
                           QStringLiteral("sh"), QStringLiteral("-c"),
                           QStringLiteral("echo alpha beta gamma; exec cat > \"$0\"")});
    ASSERT_TRUE(terminal.open(QString(), QStringLiteral("typed.txt")));
    DesktopSession::run({QStringLiteral("xdotool"), QStringLiteral("type"), QStringLiteral("--delay"),
                         QStringLiteral("20"), QStringLiteral("typed line")});
    // Double-click "beta" (columns 6 to 9 of the first row; 6x13 cells inside a 2-pixel border).
    QByteArray windows;
    DesktopSession::run({QStringLiteral("xdotool"), QStringLiteral("getactivewindow")}, &windows);
    const QString window = QString::fromLatin1(windows.trimmed());
    DesktopSession::run({QStringLiteral("xdotool"), QStringLiteral("mousemove"), QStringLiteral("--window"),
                         window, QStringLiteral("47"), QStringLiteral("8"), QStringLiteral("click"),
                         QStringLiteral("--repeat"), QStringLiteral("2"), QStringLiteral("--delay"),
                         QStringLiteral("80"), QStringLiteral("1")});
    ASSERT_TRUE(pumpUntil([&] { return primary->holder() == terminal.pid(); }, 3000)) << "xterm took PRIMARY";

    const CapturedSelection selection = finish(replacer->capture({}));
    EXPECT_EQ(selection.text(), QStringLiteral("beta"));
    EXPECT_EQ(selection.applicationBundleIdentifier(), QStringLiteral("XTerm"));
    try {
        finish(replacer->replace(QStringLiteral("DELTA"), selection, {}));
        ADD_FAILURE() << "pasted into a terminal";
    } catch (const TextReplacementError& error) {
        EXPECT_EQ(error.kind(), TextReplacementError::Kind::unsupportedTarget);
    }
    expectUserClipboardRestored();

    // The line typed before is still there, intact, and cat still reads it.
    keys({QStringLiteral("Return")});
    EXPECT_TRUE(pumpUntil([&] { return terminal.fileText() == QStringLiteral("typed line\n"); }, 3000))
        << terminal.fileText().toStdString();
    EXPECT_EQ(::kill(terminal.pid(), 0), 0) << "xterm is still running";
}

// --- a Qt 5 editor ---------------------------------------------------------------------------

TEST_F(ApplicationsDesktopTest, QtFiveEditorOnTheAccessibilityBusIsReadThereAndPastedInPlace) {
    requireProgram("featherpad");
    giveUserRichClipboard();
    EditorWindow editor(*workspace, featherPadCommand(true));
    ASSERT_TRUE(editor.open(QStringLiteral("alpha beta gamma\n"), QStringLiteral("notes.txt")));
    pumpFor(500); // FeatherPad focuses its text view after the window
    for (const QString& word : {QStringLiteral("D\u00c9LTA"), QStringLiteral("epsilon")}) {
        editor.select(6, 4);
        const CapturedSelection selection = finish(replacer->capture({}));
        ASSERT_EQ(selection.text(), QStringLiteral("beta"));
        EXPECT_EQ(selection.selectedRange(), (TextRange{6, 4})) << "read over the bus";
        StallWatchdog::current()->reset();
        finish(replacer->replace(word, selection, {}));
        EXPECT_LT(StallWatchdog::current()->longestStallMs(), 250);
        expectUserClipboardRestored();
        EXPECT_EQ(editor.savedText(), QStringLiteral("alpha %1 gamma\n").arg(word));
        // Back to the original for the next round.
        editor.select(6, static_cast<int>(word.size()));
        keys({QStringLiteral("b"), QStringLiteral("e"), QStringLiteral("t"), QStringLiteral("a")});
    }
}

TEST_F(ApplicationsDesktopTest, QtFiveEditorWithoutItsBridgeIsCopiedAndPastedInPlace) {
    requireProgram("featherpad");
    giveUserRichClipboard();
    EditorWindow editor(*workspace, featherPadCommand(false));
    ASSERT_TRUE(editor.open(QStringLiteral("alpha beta gamma\n"), QStringLiteral("notes.txt")));
    pumpFor(500);
    editor.select(6, 4);
    const CapturedSelection selection = finish(replacer->capture({}));
    ASSERT_EQ(selection.text(), QStringLiteral("beta"));
    EXPECT_EQ(selection.selectedRange(), std::nullopt) << "not on the bus";
    finish(replacer->replace(QStringLiteral("D\u00c9LTA \U0001F600"), selection, {}));
    expectUserClipboardRestored();
    EXPECT_EQ(editor.savedText(), QStringLiteral("alpha D\u00c9LTA \U0001F600 gamma\n"));
}

// --- a browser -------------------------------------------------------------------------------

TEST_F(ApplicationsDesktopTest, BrowserTextareaInputAndContentEditableAreEachReplacedInPlace) {
    requireProgram("chromium");
    giveUserRichClipboard();
    const QString profile = DesktopSession::current()->directory() + QStringLiteral("/chromium-profile");
    EditorWindow browser(*workspace, chromiumCommand(profile));
    ASSERT_TRUE(browser.open(QString::fromUtf8(fieldsPage), QStringLiteral("fields.html")));
    // The page loads and focuses its first field some time after the window appears; the field
    // then renames the page, so a loaded machine gets the time it needs. Chromium then builds its
    // accessibility tree lazily, once a client asks: give that a moment too.
    EXPECT_TRUE(pumpUntil(
        [] {
            QByteArray title;
            DesktopSession::run({QStringLiteral("xdotool"), QStringLiteral("getactivewindow"),
                                 QStringLiteral("getwindowname")},
                                &title);
            return title.startsWith("focused");
        },
        20000));
    pumpFor(1500);

    const QStringList replacements{QStringLiteral("DELTA"), QStringLiteral("\u00e9psilon"),
                                   QStringLiteral("Z\U0001F600")};
    for (int field = 0; field < 3; ++field) {
        if (field > 0) {
            keys({QStringLiteral("Tab")});
            pumpFor(200);
        }
        browser.select(6, 4);
        rewrite(QStringLiteral("beta"), replacements[field]);
        // Read the field back through the clipboard, after the restore was checked.
        keys({QStringLiteral("ctrl+a"), QStringLiteral("ctrl+c")});
        EXPECT_TRUE(pumpUntil(
            [&] {
                return clipboardTarget(QStringLiteral("UTF8_STRING")) ==
                       QStringLiteral("alpha %1 gamma").arg(replacements[field]).toUtf8();
            },
            3000))
            << "field " << field << ": " << clipboardTarget(QStringLiteral("UTF8_STRING")).toStdString();
        giveUserRichClipboard();
    }
}

} // namespace
} // namespace parlune::test
