#include "DesktopTest.h"
#include "EditorWindow.h"
#include "OtherClipboardClient.h"
#include "TaskRunner.h"
#include "core/async/Clock.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextReplacementError.h"
#include "core/selection/TextSelectionReplacer.h"
#include "platform/atspi/AtspiAccessibility.h"

namespace parlune::test {
namespace {

// "a😀b cd": the emoji is one code point for GTK, two UTF-16 units for us.
const QString emojiText = QStringLiteral("a\U0001F600b cd");

class AtspiDesktopTest : public DesktopTest {
protected:
    void SetUp() override {
        DesktopTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        accessibility = std::make_unique<atspi::AtspiAccessibility>(
            *workspace, [this] { return keyboard->isAvailable(); });
        if (!accessibility->isBusAvailable()) {
            GTEST_SKIP() << "no accessibility bus";
        }
        editor = std::make_unique<EditorWindow>(*workspace);
        clipboard = std::make_unique<ClipboardManager>(*pasteboard);
    }
    void TearDown() override {
        editor.reset();
        clipboard.reset();
        accessibility.reset();
        DesktopTest::TearDown();
    }

    // The editor's text view, once it has registered on the bus and taken focus.
    AccessibilityElementRef focusedEditorField() {
        AccessibilityElementRef element;
        pumpUntil([&] { return (element = accessibility->focusedElement()) != nullptr; }, 10000);
        return element;
    }

    TextSelectionReplacer replacer(AppCompatibilityRegistry registry) {
        return TextSelectionReplacer(*accessibility, *workspace, *clipboard, *keyboard, std::move(registry),
                                     SystemClock::shared());
    }

    std::unique_ptr<atspi::AtspiAccessibility> accessibility;
    std::unique_ptr<EditorWindow> editor;
    std::unique_ptr<ClipboardManager> clipboard;
};

TEST_F(AtspiDesktopTest, SelectionAroundAnEmojiIsReadWithUtf16Ranges) {
    ASSERT_TRUE(editor->open(emojiText));
    editor->select(1, 2);
    const AccessibilityElementRef field = focusedEditorField();
    ASSERT_TRUE(field);

    EXPECT_EQ(accessibility->processOf(*field), editor->pid());
    EXPECT_EQ(accessibility->selectedTextRange(*field), (TextRange{1, 3}));
    EXPECT_EQ(accessibility->selectedText(*field), QStringLiteral("\U0001F600b"));
    EXPECT_EQ(accessibility->stringForRange(*field, {0, 3}), QStringLiteral("a\U0001F600"));
    EXPECT_EQ(accessibility->stringForRange(*field, {3, 4}), QStringLiteral("b cd"));
    EXPECT_EQ(accessibility->stringForRange(*field, {2, 1}), std::nullopt) << "half an emoji";
    EXPECT_EQ(accessibility->stringForRange(*field, {5, 10}), std::nullopt) << "past the end";

    const AccessibilityElementRef again = accessibility->focusedElement();
    ASSERT_TRUE(again);
    EXPECT_TRUE(again->isSameElement(*field));
    EXPECT_EQ(again->hashValue(), field->hashValue());
    EXPECT_GE(field->hashValue(), 0);
}

TEST_F(AtspiDesktopTest, CaretIsAnEmptyRangeInUtf16) {
    ASSERT_TRUE(editor->open(emojiText));
    editor->select(2, 0);
    const AccessibilityElementRef field = focusedEditorField();
    ASSERT_TRUE(field);
    EXPECT_EQ(accessibility->selectedTextRange(*field), (TextRange{3, 0}));
    EXPECT_EQ(accessibility->selectedText(*field), QString());
}

TEST_F(AtspiDesktopTest, SettingTheSelectedTextReplacesItAndIsReadBack) {
    ASSERT_TRUE(editor->open(emojiText));
    editor->select(1, 2);
    const AccessibilityElementRef field = focusedEditorField();
    ASSERT_TRUE(field);
    const auto settable = accessibility->isSelectedTextSettable(*field);
    EXPECT_EQ(settable.status, 0);
    EXPECT_TRUE(settable.settable);

    EXPECT_EQ(accessibility->setSelectedText(*field, QStringLiteral("x\u00ffz\U0001F642")), 0);
    EXPECT_EQ(accessibility->stringForRange(*field, {0, 6}), QStringLiteral("ax\u00ffz\U0001F642"));
    EXPECT_EQ(editor->savedText(), QStringLiteral("ax\u00ffz\U0001F642 cd"));
}

TEST_F(AtspiDesktopTest, ReplacerCapturesThroughTheBusAndPastesUnlessTheEditorIsListed) {
    ASSERT_TRUE(editor->open(emojiText));
    editor->select(1, 2);
    ASSERT_TRUE(focusedEditorField());

    TextSelectionReplacer pasting = replacer(AppCompatibilityRegistry::defaultRegistry());
    const CapturedSelection selection = finish(pasting.capture({}));
    EXPECT_EQ(selection.text(), QStringLiteral("\U0001F600b"));
    EXPECT_EQ(selection.selectedRange(), (TextRange{1, 3}));
    EXPECT_EQ(selection.applicationBundleIdentifier(), QStringLiteral("Mousepad"));
    EXPECT_EQ(selection.replacementStrategy(), SelectionReplacementStrategy::clipboardFallback);
    finish(pasting.replace(QStringLiteral("\U0001F642\U0001F642"), selection, {}));
    EXPECT_EQ(editor->savedText(), QStringLiteral("a\U0001F642\U0001F642 cd"));

    editor->select(1, 2);
    TextSelectionReplacer direct = replacer(AppCompatibilityRegistry({QStringLiteral("Mousepad")}));
    const CapturedSelection listed = finish(direct.capture({}));
    EXPECT_EQ(listed.replacementStrategy(), SelectionReplacementStrategy::directAccessibility);
    finish(direct.replace(QStringLiteral("OK"), listed, {}));
    EXPECT_EQ(editor->savedText(), QStringLiteral("aOK cd"));
}

TEST_F(AtspiDesktopTest, CaretMovedBetweenCaptureAndReplacementIsDetected) {
    ASSERT_TRUE(editor->open(emojiText));
    editor->select(1, 2);
    ASSERT_TRUE(focusedEditorField());
    TextSelectionReplacer pasting = replacer(AppCompatibilityRegistry::defaultRegistry());
    const CapturedSelection selection = finish(pasting.capture({}));

    xdotool({QStringLiteral("key"), QStringLiteral("shift+Right")});
    pumpFor(200);
    try {
        finish(pasting.replace(QStringLiteral("nope"), selection, {}));
        ADD_FAILURE() << "replaced a selection that had changed";
    } catch (const TextReplacementError& error) {
        EXPECT_EQ(error.kind(), TextReplacementError::Kind::selectionChanged);
    }
    EXPECT_EQ(editor->savedText(), emojiText);
}

} // namespace
} // namespace parlune::test

namespace parlune::test {
namespace {

// Qt counts offsets in UTF-16 units and insert lengths likewise; the same answers must come out.
TEST_F(AtspiDesktopTest, QtEditorGivesTheSameUtf16RangesAndWrites) {
    EditorWindow qtEditor(*workspace, {QStringLiteral(PARLUNE_QT_EDITOR)});
    ASSERT_TRUE(qtEditor.open(emojiText, QStringLiteral("qt.txt")));
    qtEditor.select(1, 2);
    const AccessibilityElementRef field = focusedEditorField();
    ASSERT_TRUE(field) << "the Qt editor did not show up on the bus";
    EXPECT_EQ(accessibility->processOf(*field), qtEditor.pid());
    EXPECT_EQ(accessibility->selectedTextRange(*field), (TextRange{1, 3}));
    EXPECT_EQ(accessibility->selectedText(*field), QStringLiteral("\U0001F600b"));
    EXPECT_EQ(accessibility->stringForRange(*field, {0, 3}), QStringLiteral("a\U0001F600"));
    EXPECT_EQ(accessibility->stringForRange(*field, {3, 4}), QStringLiteral("b cd"));

    EXPECT_EQ(accessibility->setSelectedText(*field, QStringLiteral("x\U0001F642y")), 0);
    EXPECT_EQ(accessibility->stringForRange(*field, {0, 5}), QStringLiteral("ax\U0001F642y"));
    EXPECT_EQ(qtEditor.savedText(), QStringLiteral("ax\U0001F642y cd"));
}

// The editor, asked to paste, waits in its main thread for our clipboard data; meanwhile the paste
// confirmation asks the same editor over the bus. With the bus call on our main thread neither
// could answer the other until a five-second time-out broke the tie; now the worker waits for
// the editor while our event loop serves the data.
TEST_F(AtspiDesktopTest, EditorFetchingOurClipboardWhileWeAskItOverTheBusNeverStallsUs) {
    auto user = OtherClipboardClient::withUsersRichText(*pasteboard);
    ASSERT_TRUE(user->owns());
    EditorWindow qtEditor(*workspace, {QStringLiteral(PARLUNE_QT_EDITOR)});
    ASSERT_TRUE(qtEditor.open(QStringLiteral("alpha beta gamma"), QStringLiteral("qt.txt")));
    qtEditor.select(6, 4);
    ASSERT_TRUE(focusedEditorField());

    TextSelectionReplacer pasting = replacer(AppCompatibilityRegistry::defaultRegistry());
    for (const QString& word : {QStringLiteral("DELTA"), QStringLiteral("epsilon")}) {
        const CapturedSelection selection = finish(pasting.capture({}));
        ASSERT_TRUE(selection.selectedRange()) << "read over the bus";
        StallWatchdog::current()->reset();
        finish(pasting.replace(word, selection, {}));
        // A timer, not a time-out: a blocked main thread shows as one long gap between ticks.
        EXPECT_LT(StallWatchdog::current()->longestStallMs(), 250);
        EXPECT_EQ(qtEditor.savedText(), QStringLiteral("alpha %1 gamma").arg(word));
        expectUserClipboardRestored();
        qtEditor.select(6, static_cast<int>(word.size()));
    }
}

} // namespace
} // namespace parlune::test
