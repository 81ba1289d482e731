// The Wayland ports against real clients of a headless sway: wl-copy and wl-paste as the user's
// other programs, mousepad as the editor, foot as the terminal.
#include "DesktopSession.h"
#include "TaskRunner.h"
#include "WaylandDesktopTest.h"
#include "WaylandEditor.h"
#include "WlClipboard.h"
#include "core/selection/TextReplacementError.h"
#include "platform/wayland/WaylandPrimarySelection.h"
#include "support/desktop/PasteInPlaceChecks.h"

#include <QFile>

#include <algorithm>

#include <xkbcommon/xkbcommon-keysyms.h>

namespace parlune::test {
namespace {

class ClipboardWaylandTest : public WaylandDesktopTest, protected CopyPasteParts<WaylandEditor> {
protected:
    void SetUp() override {
        WaylandDesktopTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        makePath(*workspace, *pasteboard, *keyboard);
        editor = std::make_unique<WaylandEditor>(*workspace, *typist);
    }
    void TearDown() override {
        editor.reset();
        path.reset();
        WaylandDesktopTest::TearDown();
    }

    // Another client's write, once our port has seen it (not the report of what the clipboard held
    // when the port started).
    bool copiedByAnotherClient(const QByteArray& bytes, const QString& type) {
        WlClipboard::copy(bytes, type);
        return pumpUntil(
            [&] {
                const std::vector<QString> types = finish(pasteboard->typesAsync(0));
                return std::find(types.begin(), types.end(), type) != types.end() &&
                       !pasteboard->ownsSelection();
            },
            3000);
    }

    // The user's clipboard: text from wl-copy, which offers it under five types.
    void giveUserText() {
        ASSERT_TRUE(copiedByAnotherClient(QByteArrayLiteral("the user's own words \xe2\x9c\x93"),
                                          QStringLiteral("text/plain;charset=utf-8")));
        userTypes = WlClipboard::types();
        ASSERT_GE(userTypes.size(), 2);
        for (const QString& type : userTypes) {
            userData.push_back(WlClipboard::paste(type));
        }
    }

    void expectUserClipboardRestored() {
        // Restoring finishes on the event loop once the paste target fetched our text.
        pumpUntil([&] { return WlClipboard::types() == userTypes; }, 3000);
        ASSERT_EQ(WlClipboard::types(), userTypes);
        for (int i = 0; i < userTypes.size(); ++i) {
            EXPECT_EQ(WlClipboard::paste(userTypes[i]), userData[static_cast<std::size_t>(i)])
                << userTypes[i].toStdString();
        }
    }

    QStringList userTypes;
    std::vector<QByteArray> userData;
};

TEST_F(ClipboardWaylandTest, AnotherClientsClipboardIsReadWithEveryTypeAndOurWritesAreServedAndCounted) {
    giveUserText();
    const std::vector<QString> types = finish(pasteboard->typesAsync(0));
    EXPECT_EQ(QStringList(types.begin(), types.end()).size(), userTypes.size());
    EXPECT_EQ(finish(pasteboard->stringAsync()), QStringLiteral("the user's own words \u2713"));

    const std::int64_t before = pasteboard->changeCount();
    ASSERT_TRUE(
        pasteboard->writeItems({PasteboardItem{{{pasteboard->plainTextType(), QByteArrayLiteral("ours")}}}}));
    const std::int64_t ours = pasteboard->changeCount();
    EXPECT_EQ(ours, before + 1);
    EXPECT_EQ(WlClipboard::paste(QStringLiteral("text/plain;charset=utf-8")), QByteArrayLiteral("ours"));
    EXPECT_TRUE(pumpUntil([&] { return pasteboard->contentsWereFetched(ours); }, 2000));
    // The compositor's echo of our own write is not someone else's change.
    pumpFor(200);
    EXPECT_EQ(pasteboard->changeCount(), ours);
    EXPECT_TRUE(pasteboard->ownsSelection());
}

TEST_F(ClipboardWaylandTest, BinaryDataWithNulBytesComesBackByteForByte) {
    const QByteArray image("\x89PNG\r\n\x1a\n\x00\x00\x00\rIHDR\x00\xff", 18);
    ASSERT_TRUE(copiedByAnotherClient(image, QStringLiteral("image/png")));
    const ClipboardSnapshot snapshot = finish(clipboard->capture());
    clipboard->setTransientLocalString(QStringLiteral("transient"));
    EXPECT_EQ(WlClipboard::paste(QStringLiteral("text/plain")), QByteArrayLiteral("transient"));
    ASSERT_TRUE(clipboard->restore(snapshot, pasteboard->changeCount()));
    EXPECT_EQ(WlClipboard::types(), QStringList{QStringLiteral("image/png")});
    EXPECT_EQ(WlClipboard::paste(QStringLiteral("image/png")), image);
}

TEST_F(ClipboardWaylandTest, SelectionIsCopiedThenReplacedInPlaceAndTheUsersClipboardComesBackEachTime) {
    giveUserText();
    std::optional<CapturedSelection> selection;
    ASSERT_NO_FATAL_FAILURE(
        captureAndPasteInPlace(*editor, *replacer, selection, [&] { expectUserClipboardRestored(); }));
    EXPECT_EQ(selection->applicationBundleIdentifier(), QStringLiteral("mousepad"));
}

TEST_F(ClipboardWaylandTest, ClipboardWrittenByAnotherClientDuringThePasteIsLeftAlone) {
    giveUserText();
    std::optional<CapturedSelection> selection;
    ASSERT_NO_FATAL_FAILURE(captureBeta(*editor, *replacer, selection));
    replaceWhileAnotherClientWrites(*replacer, *selection, keys->afterKey,
                                    [] { WlClipboard::copy(QByteArrayLiteral("newer words")); });
    pumpFor(500);
    EXPECT_EQ(WlClipboard::paste(QStringLiteral("text/plain;charset=utf-8")),
              QByteArrayLiteral("newer words"));
}

// foot runs a raw-mode `cat` that writes every byte it reads to a file: a Control+C would arrive
// there as byte 3 (and in cooked mode end the program), and so would Control+Shift+C with nothing
// selected. The selection, made with foot's search mode, is read from the primary selection
// without a single key sent, and the replacement is refused rather than typed into the program.
TEST_F(ClipboardWaylandTest, TerminalSelectionIsReadFromPrimaryWithoutAnyKey) {
    ASSERT_TRUE(pasteboard->carriesPrimary()) << "sway offers data-control version 2";
    wayland::WaylandPrimarySelection primary(*pasteboard, *workspace);
    replacer->setPrimarySelection(&primary);
    const QString typed = SwaySession::current()->directory() + QStringLiteral("/typed.bin");
    WaylandEditor terminal(*workspace, *typist,
                           {QStringLiteral("foot"), QStringLiteral("sh"), QStringLiteral("-c"),
                            QStringLiteral("stty raw -echo; printf 'alpha beta gamma'; printf ready > "
                                           "\"$0.ready\"; exec cat > \"$0\"")});
    ASSERT_TRUE(terminal.open(QString(), QStringLiteral("typed.bin")));
    ASSERT_TRUE(pumpUntil([&] { return QFile::exists(typed + QStringLiteral(".ready")); }, 5000));
    ASSERT_EQ(workspace->bundleIdentifier(terminal.pid()), QStringLiteral("foot"));
    EXPECT_THROW(capture(), TextReplacementError) << "nothing is selected yet";

    // Search for "beta" and commit it: foot puts the match in the primary selection.
    for (const std::uint32_t key : {XKB_KEY_b, XKB_KEY_e, XKB_KEY_t, XKB_KEY_a, XKB_KEY_Return}) {
        ASSERT_TRUE(key != XKB_KEY_b || typist->tap(XKB_KEY_r, true, true));
        ASSERT_TRUE(typist->tap(key));
    }
    ASSERT_TRUE(
        pumpUntil([&] { return finish(pasteboard->primaryTextAsync()) == QStringLiteral("beta"); }, 5000));
    const CapturedSelection selection = capture();
    EXPECT_EQ(selection.text(), QStringLiteral("beta"));
    EXPECT_THROW(finish(replacer->replace(QStringLiteral("DELTA"), selection, {})), TextReplacementError);
    EXPECT_TRUE(keys->sent.empty());
    pumpFor(300);
    QFile file(typed);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), QByteArray()) << "no byte reached the program";
}

} // namespace
} // namespace parlune::test
