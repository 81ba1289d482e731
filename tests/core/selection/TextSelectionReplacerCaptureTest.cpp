#include "SelectionTestFixture.h"

namespace parlune::test {
namespace {

using Strategy = SelectionReplacementStrategy;

class CaptureTest : public SelectionTest {};

TEST_F(CaptureTest, DirectReadChoosesStrategyByRegistryAndSettability) {
    // Default registry: readable and settable, still pasted.
    CapturedSelection selection = capture();
    EXPECT_EQ(selection.text(), QStringLiteral("world"));
    EXPECT_EQ(selection.replacementStrategy(), Strategy::clipboardFallback);
    EXPECT_EQ(selection.applicationBundleIdentifier(), editorId);
    EXPECT_EQ(selection.applicationProcessIdentifier(), editorPid);
    EXPECT_EQ(selection.selectedRange(), (TextRange{6, 5}));
    EXPECT_EQ(selection.targetIdentifier(), fieldA);
    ASSERT_TRUE(selection.target());

    listEditor();
    EXPECT_EQ(capture().replacementStrategy(), Strategy::directAccessibility);

    desktop.field(fieldA)->settable = false;
    EXPECT_EQ(capture().replacementStrategy(), Strategy::clipboardFallback);

    // Listed only under a differently cased identifier.
    desktop.field(fieldA)->settable = true;
    makeReplacer(AppCompatibilityRegistry({QStringLiteral("org.example.editor")}));
    EXPECT_EQ(capture().replacementStrategy(), Strategy::clipboardFallback);

    // An application without an identifier is never written directly.
    listEditor();
    desktop.application(editorPid)->identifier.reset();
    CapturedSelection anonymous = capture();
    EXPECT_EQ(anonymous.replacementStrategy(), Strategy::clipboardFallback);
    EXPECT_FALSE(anonymous.applicationBundleIdentifier());

    EXPECT_TRUE(pasteboardUntouched());
    EXPECT_TRUE(desktop.sentKeys().empty());
}

TEST_F(CaptureTest, TextReadOnlyByRangeCountsUtf16UnitsAndIsAlwaysPasted) {
    // "🙂 ok 👍🏽 fine": each emoji is two UTF-16 units (the skin tone modifier two more).
    listEditor();
    desktop.field(fieldA)->text = QStringLiteral("🙂 ok 👍🏽 fine");
    desktop.field(fieldA)->selectedTextReadable = false;
    desktop.select(fieldA, {6, 9}); // "👍🏽 fine"
    CapturedSelection selection = capture();
    EXPECT_EQ(selection.text(), QStringLiteral("👍🏽 fine"));
    EXPECT_EQ(selection.selectedRange(), (TextRange{6, 9}));
    EXPECT_EQ(selection.replacementStrategy(), Strategy::clipboardFallback);
    EXPECT_TRUE(pasteboardUntouched());
}

TEST_F(CaptureTest, NothingButACaretOrBlanksIsNoSelectedTextWhicheverWayItIsRead) {
    desktop.select(fieldA, {3, 0});
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::noSelectedText);
    EXPECT_TRUE(desktop.sentKeys().empty());
    desktop.field(fieldA)->text = QStringLiteral("a \t\n\u00a0 b");
    desktop.select(fieldA, {1, 5});
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::noSelectedText);
    EXPECT_TRUE(pasteboardUntouched());
    // Read by copying instead: the user's pasteboard is back as it was.
    makeUnreadable(fieldA);
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::noSelectedText);
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(CaptureTest, FailuresBeforeAnyPasteboardUseLeaveItUntouched) {
    desktop.trusted = false;
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::accessibilityPermissionMissing);
    desktop.trusted = true;

    desktop.application(editorPid)->processReadable = false;
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::unableToReadFocusedElement);
    desktop.application(editorPid)->processReadable = true;

    // Accessibility still reports the editor's field, but another application is in front.
    desktop.staleAccessibilityFocus = fieldA;
    desktop.focus(otherField);
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::selectionChanged);
    desktop.clearFrontmost();
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::selectionChanged);
    desktop.staleAccessibilityFocus = 0;

    // Nothing in front and nothing focused.
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::unableToReadFocusedElement);

    EXPECT_TRUE(pasteboardUntouched());
    EXPECT_TRUE(desktop.sentKeys().empty());
}

TEST_F(CaptureTest, FocusedElementCopyKeepsTargetAndRestoresEveryItemAndType) {
    listEditor();
    makeUnreadable(fieldA);
    CapturedSelection selection = capture();
    EXPECT_EQ(selection.text(), QStringLiteral("world"));
    EXPECT_EQ(selection.replacementStrategy(), Strategy::clipboardFallback);
    EXPECT_EQ(selection.selectedRange(), (TextRange{6, 5}));
    EXPECT_EQ(selection.targetIdentifier(), fieldA);
    ASSERT_EQ(desktop.sentKeys().size(), 1u);
    EXPECT_EQ(desktop.sentKeys()[0].keyCode, KeyboardEvents::keyCodeC);
    EXPECT_EQ(desktop.sentKeys()[0].target, editorPid);
    EXPECT_TRUE(pasteboardIsUsers());

    // The copied text went back on the pasteboard marked transient and concealed before the restore.
    const auto& writes = desktop.pasteboardWrites();
    ASSERT_GE(writes.size(), 3u);
    const PasteboardWrite& transient = writes[writes.size() - 3];
    EXPECT_EQ(transient.writer, PasteboardWriter::program);
    ASSERT_EQ(transient.items.size(), 1u);
    ASSERT_EQ(transient.items[0].values.size(), 4u); // the markers themselves: ClipboardManagerTest
    EXPECT_EQ(transient.items[0].values[0],
              std::make_pair(SimulatedDesktop::plainTextType(), QByteArrayLiteral("world")));
}

TEST_F(CaptureTest, FrontmostCopyWithoutElementHasNoRangeNorTarget) {
    desktop.application(editorPid)->exposesFocusedElement = false;
    CapturedSelection selection = capture();
    EXPECT_EQ(selection.text(), QStringLiteral("world"));
    EXPECT_FALSE(selection.selectedRange());
    EXPECT_FALSE(selection.target());
    EXPECT_EQ(selection.targetIdentifier(), 0);
    EXPECT_EQ(selection.applicationBundleIdentifier(), editorId);
    EXPECT_EQ(selection.applicationProcessIdentifier(), editorPid);
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(CaptureTest, IgnoredCopyEndsAfterTheCopyTimeoutWithPasteboardRestored) {
    makeUnreadable(fieldA);
    desktop.application(editorPid)->ignoresCopy = true;
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::noSelectedText);
    EXPECT_GE(secondsOf(timer), TextSelectionReplacer::Timing{}.copyTimeout);
    EXPECT_LT(secondsOf(timer), 10.0); // gives up, however loaded the machine
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(CaptureTest, EmptyCopiedStringCountsAsNothingCopied) {
    makeUnreadable(fieldA);
    desktop.application(editorPid)->ignoresCopy = true;
    desktop.onCommandKey = [this](const SentKey&) {
        desktop.after(2, [this] {
            desktop.writePasteboard({pasteboardItem({{SimulatedDesktop::plainTextType(), QByteArray()}})},
                                    PasteboardWriter::application, editorPid);
        });
    };
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::noSelectedText);
    // The target's own empty write moved the change count, and a moved count is never written over.
    EXPECT_FALSE(pasteboardIsUsers());
    EXPECT_EQ(desktop.pasteboardString(), QString());
}

// A clock that only moves when told: stands for a process that was not scheduled for a while.
class StalledClock final : public Clock {
public:
    double uptimeSeconds() const override { return uptime; }
    WallTime now() const override {
        return WallTime{} + std::chrono::milliseconds(static_cast<long>(uptime * 1000));
    }
    double uptime = 100.0;
};

TEST_F(CaptureTest, CopyArrivingWhileTheProgramStalledIsStillTaken) {
    // The copy lands, then our clock leaps past the time-out before the next look: the copied text
    // is taken and the user's pasteboard put back, rather than a failure that leaves the copy there.
    StalledClock clock;
    replacer =
        std::make_unique<TextSelectionReplacer>(desktop.accessibility(), desktop.workspace(), clipboard,
                                                desktop.keyboard(), AppCompatibilityRegistry(), clock);
    makeUnreadable(fieldA);
    desktop.onCommandKey = [&](const SentKey&) { desktop.after(5, [&] { clock.uptime += 5.0; }); };
    EXPECT_EQ(capture().text(), QStringLiteral("world"));
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(CaptureTest, KeyboardUnavailableRestoresPasteboard) {
    makeUnreadable(fieldA);
    desktop.keyboardAvailable = false;
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::unableToCreateKeyboardEvent);
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(CaptureTest, FocusMovingDuringCopyIsSelectionChanged) {
    makeUnreadable(fieldA);
    desktop.select(fieldB, {0, 6});
    desktop.onCommandKey = [this](const SentKey&) { desktop.focus(fieldB); };
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::selectionChanged);
    EXPECT_TRUE(pasteboardIsUsers());

    // Same for a capture through the frontmost application when another application comes forward.
    desktop.focus(fieldA);
    desktop.application(editorPid)->exposesFocusedElement = false;
    desktop.onCommandKey = [this](const SentKey&) {
        desktop.after(1, [this] { desktop.focus(otherField); });
    };
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::selectionChanged);
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(CaptureTest, AnotherWriterDuringCopyWins) {
    makeUnreadable(fieldA);
    desktop.application(editorPid)->ignoresCopy = true;
    const std::vector<PasteboardItem> newer{
        pasteboardItem({{QStringLiteral("image/png"), QByteArray("\x89P", 2)}})};
    desktop.onCommandKey = [&](const SentKey&) {
        desktop.after(3, [&] { desktop.writePasteboardAsOther(newer); });
    };
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::noSelectedText);
    EXPECT_EQ(desktop.pasteboardItems(), newer);
}

TEST_F(CaptureTest, CancellationDuringCopyRestoresPasteboard) {
    makeUnreadable(fieldA);
    desktop.application(editorPid)->ignoresCopy = true;
    makePatientReplacer(); // cancelled at all means before the copy timeout
    std::stop_source source;
    desktop.onCommandKey = [&](const SentKey&) { desktop.after(30, [&] { source.request_stop(); }); };
    EXPECT_TRUE(endsCancelled(replacer->capture(source.get_token())));
    EXPECT_TRUE(pasteboardIsUsers());
    EXPECT_FALSE(replacer->isPasteboardBusy());
}

TEST_F(CaptureTest, CancellationWhileTheKeyPortWaitsRestoresPasteboard) {
    makeUnreadable(fieldA);
    desktop.modifierReleaseWaitMs = 200;
    std::stop_source source;
    desktop.after(20, [&] { source.request_stop(); });
    EXPECT_TRUE(endsCancelled(replacer->capture(source.get_token())));
    EXPECT_TRUE(desktop.sentKeys().empty());
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(CaptureTest, PermissionWithdrawnDuringCopyFailsTheNextStep) {
    makeUnreadable(fieldA);
    desktop.onCommandKey = [this](const SentKey&) { desktop.trusted = false; };
    CapturedSelection selection = capture();
    EXPECT_TRUE(pasteboardIsUsers());
    EXPECT_EQ(failureOf(replacer->validate(selection, {})), Kind::accessibilityPermissionMissing);
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})),
              Kind::accessibilityPermissionMissing);
    EXPECT_EQ(desktop.field(fieldA)->text, QStringLiteral("Hello world, again"));
    EXPECT_TRUE(pasteboardIsUsers());
}

} // namespace
} // namespace parlune::test
