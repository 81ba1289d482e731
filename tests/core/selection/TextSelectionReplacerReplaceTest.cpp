#include "SelectionTestFixture.h"

#include "core/async/TaskHandle.h"

namespace parlune::test {
namespace {

class ReplaceTest : public SelectionTest {
protected:
    QString textOf(int fieldId) const { return desktop.field(fieldId)->text; }
    int programWritesWithMarkers() const {
        int count = 0;
        for (const auto& write : desktop.pasteboardWrites()) {
            if (write.writer == PasteboardWriter::program && write.items.size() == 1 &&
                write.items[0].values.size() == 4 &&
                write.items[0].values[1].first == QStringLiteral("org.nspasteboard.TransientType")) {
                ++count;
            }
        }
        return count;
    }
};

// MARK: direct path

TEST_F(ReplaceTest, DirectWriteReplacesWithoutTouchingThePasteboard) {
    listEditor();
    CapturedSelection selection = capture();
    ASSERT_EQ(selection.replacementStrategy(), SelectionReplacementStrategy::directAccessibility);
    runTask(replacer->validate(selection, {}));
    runTask(replacer->replace(QStringLiteral("earth"), selection, {}));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello earth, again"));
    EXPECT_TRUE(pasteboardUntouched());
    EXPECT_TRUE(desktop.sentKeys().empty());
}

TEST_F(ReplaceTest, DirectValidationDetectsEveryKindOfChange) {
    listEditor();
    const CapturedSelection selection = capture();

    desktop.select(fieldA, {7, 5}); // caret moved by one
    EXPECT_EQ(failureOf(replacer->validate(selection, {})), Kind::selectionChanged);
    desktop.select(fieldA, {6, 5});

    desktop.focus(fieldB); // another field of the same application
    EXPECT_EQ(failureOf(replacer->validate(selection, {})), Kind::selectionChanged);
    desktop.focus(otherField); // another application
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})), Kind::selectionChanged);
    desktop.focus(fieldA);

    desktop.field(fieldA)->text = QStringLiteral("Hello WORLD, again"); // same range, other text
    EXPECT_EQ(failureOf(replacer->validate(selection, {})), Kind::selectionChanged);
    desktop.field(fieldA)->text = QStringLiteral("Hello world, again");

    desktop.field(fieldA)->selectedTextReadable = false;
    EXPECT_EQ(failureOf(replacer->validate(selection, {})), Kind::selectionChanged);
    desktop.field(fieldA)->selectedTextReadable = true;

    desktop.application(editorPid)->processReadable = false;
    EXPECT_EQ(failureOf(replacer->validate(selection, {})), Kind::selectionChanged);
    desktop.application(editorPid)->processReadable = true;

    desktop.trusted = false;
    EXPECT_EQ(failureOf(replacer->validate(selection, {})), Kind::accessibilityPermissionMissing);
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})),
              Kind::accessibilityPermissionMissing);
    desktop.trusted = true;

    runTask(replacer->validate(selection, {}));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello world, again"));
    EXPECT_TRUE(pasteboardUntouched());
}

TEST_F(ReplaceTest, DirectSelectionWithoutRangeOrProcessIsUnsupported) {
    listEditor();
    const CapturedSelection captured = capture();
    const CapturedSelection noRange(QUuid::createUuid(), captured.text(),
                                    captured.applicationBundleIdentifier(),
                                    captured.applicationProcessIdentifier(), std::nullopt,
                                    SelectionReplacementStrategy::directAccessibility, captured.target());
    const CapturedSelection noProcess(
        QUuid::createUuid(), captured.text(), captured.applicationBundleIdentifier(), std::nullopt,
        captured.selectedRange(), SelectionReplacementStrategy::directAccessibility, captured.target());
    EXPECT_EQ(failureOf(replacer->validate(noRange, {})), Kind::unsupportedTarget);
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("x"), noRange, {})), Kind::unsupportedTarget);
    EXPECT_EQ(failureOf(replacer->validate(noProcess, {})), Kind::unsupportedTarget);
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("x"), noProcess, {})), Kind::unsupportedTarget);
    EXPECT_TRUE(pasteboardUntouched());
}

TEST_F(ReplaceTest, RefusedDirectWriteContinuesByPasting) {
    listEditor();
    desktop.application(editorPid)->refusesAccessibilityWrites = true;
    const CapturedSelection selection = capture();
    ASSERT_EQ(selection.replacementStrategy(), SelectionReplacementStrategy::directAccessibility);
    runTask(replacer->replace(QStringLiteral("earth"), selection, {}));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello earth, again"));
    ASSERT_EQ(desktop.sentKeys().size(), 1u);
    EXPECT_EQ(desktop.sentKeys()[0].keyCode, KeyboardEvents::keyCodeV);
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(ReplaceTest, AcceptedButUnchangedDirectWriteIsNotConfirmedAndNotPasted) {
    listEditor();
    desktop.application(editorPid)->dropsAccessibilityWrites = true;
    const CapturedSelection selection = capture();
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})),
              Kind::replacementNotConfirmed);
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello world, again"));
    EXPECT_TRUE(desktop.sentKeys().empty());
    EXPECT_TRUE(pasteboardUntouched());
}

TEST_F(ReplaceTest, DirectWriteOfAstralTextIsConfirmedByItsUtf16Length) {
    listEditor();
    desktop.field(fieldA)->text = QStringLiteral("𝒜🙂 say hi now");
    desktop.select(fieldA, {5, 6}); // "say hi" after two astral characters and a space (five units)
    const CapturedSelection selection = capture();
    ASSERT_EQ(selection.text(), QStringLiteral("say hi"));
    // After the write the caret follows the text, so only the range read (5, 11 units) can confirm.
    const QString replacement = QStringLiteral("👋 héllo 🌍");
    ASSERT_EQ(replacement.size(), 11);
    runTask(replacer->replace(replacement, selection, {}));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("𝒜🙂 👋 héllo 🌍 now"));
    EXPECT_EQ(desktop.accessibility().invalidRangeRequests, 0);
}

TEST_F(ReplaceTest, ShortenedToItsOwnBeginningIsNotConfirmedByTheRangeRead) {
    // "world, again" shortened to "world": the text at (6, 5) reads "world" with or without the write.
    listEditor();
    desktop.application(editorPid)->dropsAccessibilityWrites = true;
    desktop.select(fieldA, {6, 12});
    const CapturedSelection selection = capture();
    ASSERT_EQ(selection.text(), QStringLiteral("world, again"));
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("world"), selection, {})),
              Kind::replacementNotConfirmed);
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello world, again"));
}

// MARK: clipboard path

TEST_F(ReplaceTest, PasteReplacesAndRestoresEveryItemAndType) {
    const CapturedSelection selection = capture();
    runTask(replacer->validate(selection, {}));
    runTask(replacer->replace(QStringLiteral("earth"), selection, {}));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello earth, again"));
    EXPECT_TRUE(pasteboardIsUsers());
    EXPECT_EQ(programWritesWithMarkers(), 1);
    ASSERT_EQ(desktop.insertions().size(), 1u);
    EXPECT_EQ(desktop.insertions()[0].field, fieldA);
    EXPECT_FALSE(replacer->isPasteboardBusy());
}

TEST_F(ReplaceTest, PasteOfAstralTextAfterAstralTextIsConfirmedByRange) {
    desktop.field(fieldA)->text = QStringLiteral("🇫🇷 café 🙂 fin");
    desktop.field(fieldA)->selectedTextReadable = false; // captured and confirmed through ranges only
    desktop.select(fieldA, {5, 4});                      // "café"
    const CapturedSelection selection = capture();
    ASSERT_EQ(selection.text(), QStringLiteral("café"));
    runTask(replacer->replace(QStringLiteral("😀😀"), selection, {}));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("🇫🇷 😀😀 🙂 fin"));
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(ReplaceTest, PasteLeavingTextSelectedIsConfirmed) {
    desktop.application(editorPid)->pasteLeavesSelection = true;
    makeUnreadable(fieldA); // neither selected text nor range string: the selected range confirms
    const CapturedSelection selection = capture();
    runTask(replacer->replace(QStringLiteral("planet"), selection, {}));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello planet, again"));
    EXPECT_EQ(desktop.field(fieldA)->selection, (TextRange{6, 6}));
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(ReplaceTest, FrontmostSelectionIsConfirmedOnceSteady) {
    desktop.application(editorPid)->exposesFocusedElement = false;
    makePatientReplacer(); // confirmed at all means confirmed by the steady moment, not the timeout
    const CapturedSelection selection = capture();
    runTask(replacer->validate(selection, {})); // copies again and compares
    QElapsedTimer timer;
    timer.start();
    runTask(replacer->replace(QStringLiteral("earth"), selection, {}));
    EXPECT_GE(secondsOf(timer), TextSelectionReplacer::Timing{}.steadyPasteInterval);
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello earth, again"));
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(ReplaceTest, ClipboardValidationByCopyDetectsChangedText) {
    makeUnreadable(fieldA);
    const CapturedSelection selection = capture();
    runTask(replacer->validate(selection, {}));
    EXPECT_TRUE(pasteboardIsUsers());

    desktop.field(fieldA)->text = QStringLiteral("Hello WORLD, again");
    EXPECT_EQ(failureOf(replacer->validate(selection, {})), Kind::selectionChanged);
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})), Kind::selectionChanged);
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello WORLD, again"));
    EXPECT_TRUE(pasteboardIsUsers());

    desktop.field(fieldA)->text = QStringLiteral("Hello world, again");
    desktop.application(editorPid)->ignoresCopy = true; // the copy-back finds nothing
    EXPECT_EQ(failureOf(replacer->validate(selection, {})), Kind::noSelectedText);
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(ReplaceTest, ChangesBeforeThePasteFailWithPasteboardUntouched) {
    const CapturedSelection selection = capture();
    desktop.select(fieldA, {6, 4});
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})), Kind::selectionChanged);
    desktop.select(fieldA, {6, 5});
    desktop.focus(fieldB);
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})), Kind::selectionChanged);
    desktop.focus(fieldA);

    const CapturedSelection noProcess(
        QUuid::createUuid(), selection.text(), selection.applicationBundleIdentifier(), std::nullopt,
        selection.selectedRange(), SelectionReplacementStrategy::clipboardFallback, selection.target());
    EXPECT_EQ(failureOf(replacer->validate(noProcess, {})), Kind::unsupportedTarget);
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), noProcess, {})), Kind::unsupportedTarget);

    EXPECT_TRUE(pasteboardUntouched());
    EXPECT_TRUE(desktop.sentKeys().empty());
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello world, again"));
}

TEST_F(ReplaceTest, IgnoredPasteIsNotConfirmedAfterTheTimeoutAndRestores) {
    desktop.application(editorPid)->ignoresPaste = true;
    const CapturedSelection selection = capture();
    QElapsedTimer timer;
    timer.start();
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})),
              Kind::replacementNotConfirmed);
    EXPECT_GE(secondsOf(timer), TextSelectionReplacer::Timing{}.pasteConfirmationTimeout);
    EXPECT_LT(secondsOf(timer), 10.0); // gives up, however loaded the machine
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello world, again"));
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(ReplaceTest, KeyboardUnavailableAtPasteRestores) {
    const CapturedSelection selection = capture();
    desktop.keyboardAvailable = false;
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})),
              Kind::unableToCreateKeyboardEvent);
    EXPECT_TRUE(pasteboardIsUsers());
    EXPECT_EQ(programWritesWithMarkers(), 1);
}

TEST_F(ReplaceTest, WriterBetweenOurWriteAndTheKeyIsSelectionChangedAndWins) {
    const CapturedSelection selection = capture();
    const std::vector<PasteboardItem> newer{pasteboardItem({{SimulatedDesktop::plainTextType(), "newer"}})};
    // Right after our replacement string is on the pasteboard, before the key is sent.
    desktop.onProgramWrite = [&](const std::vector<PasteboardItem>& items) {
        if (items.size() == 1 && items[0].values.size() == 4) {
            desktop.beforeNextAccessibilityQuery = [&] { desktop.writePasteboardAsOther(newer); };
        }
    };
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})), Kind::selectionChanged);
    EXPECT_TRUE(desktop.sentKeys().empty());
    EXPECT_EQ(desktop.pasteboardItems(), newer);
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello world, again"));
}

TEST_F(ReplaceTest, WriterDuringConfirmationKeepsItsContents) {
    desktop.application(editorPid)->ignoresPaste = true;
    const CapturedSelection selection = capture();
    const std::vector<PasteboardItem> newer{
        pasteboardItem({{QStringLiteral("text/uri-list"), "file:///tmp/a"}})};
    desktop.onCommandKey = [&](const SentKey&) {
        desktop.after(40, [&] { desktop.writePasteboardAsOther(newer); });
    };
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})),
              Kind::replacementNotConfirmed);
    EXPECT_EQ(desktop.pasteboardItems(), newer);
}

TEST_F(ReplaceTest, CancellationDuringConfirmationRestores) {
    desktop.application(editorPid)->ignoresPaste = true;
    makePatientReplacer();
    const CapturedSelection selection = capture();
    std::stop_source source;
    desktop.onCommandKey = [&](const SentKey&) { desktop.after(30, [&] { source.request_stop(); }); };
    EXPECT_TRUE(endsCancelled(replacer->replace(QStringLiteral("earth"), selection, source.get_token())));
    EXPECT_TRUE(pasteboardIsUsers());
    EXPECT_FALSE(replacer->isPasteboardBusy());
}

TEST_F(ReplaceTest, FocusMovingAfterTheKeyWasSentIsNotConfirmed) {
    // Once command-V is on its way nothing can call it back: with input following desktop focus
    // the text lands in the newly focused field. The replacer must at least not claim success and
    // must put the user's pasteboard back.
    desktop.keysFollowDesktopFocus = true;
    desktop.select(fieldB, {0, 6});
    const CapturedSelection selection = capture();
    desktop.onCommandKey = [&](const SentKey& key) {
        if (key.keyCode == KeyboardEvents::keyCodeV) {
            desktop.focus(fieldB);
        }
    };
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})),
              Kind::replacementNotConfirmed);
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello world, again"));
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(ReplaceTest, SlowPasteOfAShortenedSelectionIsAwaited) {
    // The range read would match before the paste arrives; restoring then would have the target
    // paste the user's contents. The caret after the pasted text confirms it instead.
    desktop.field(fieldA)->selectedTextReadable = false;
    desktop.select(fieldA, {0, 11});
    const CapturedSelection selection = capture();
    desktop.keyDelayMs = 40;
    runTask(replacer->replace(QStringLiteral("Hello"), selection, {}));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello, again"));
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(ReplaceTest, SameLengthReplacementLeftSelectedNeedsItsTextReadBack) {
    // An untouched selection of five units looks exactly like five pasted units left selected.
    desktop.application(editorPid)->pasteLeavesSelection = true;
    desktop.application(editorPid)->ignoresPaste = true;
    makeUnreadable(fieldA);
    const CapturedSelection selection = capture();
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), selection, {})),
              Kind::replacementNotConfirmed);
    EXPECT_TRUE(pasteboardIsUsers());
}

TEST_F(ReplaceTest, FetchReportingDelaysTheRestoreUntilTheTargetFetched) {
    // Without a range, a paste that changed nothing for 0.12 s counts; a target slower than that
    // would then paste the restored contents. Where fetches are reported, the restore waits for it.
    desktop.reportsFetches = true;
    desktop.application(editorPid)->exposesFocusedElement = false;
    const CapturedSelection selection = capture();
    desktop.keyDelayMs = 250;
    runTask(replacer->replace(QStringLiteral("earth"), selection, {}));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello earth, again"));
    EXPECT_TRUE(pasteboardIsUsers());

    // A target that never fetches: not confirmed, though nothing moved for long enough.
    desktop.keyDelayMs = 2;
    desktop.select(fieldA, {6, 5});
    desktop.application(editorPid)->ignoresPaste = true;
    const CapturedSelection again = capture();
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("earth"), again, {})),
              Kind::replacementNotConfirmed);
    EXPECT_TRUE(pasteboardIsUsers());
}

// MARK: the pasteboard guard

TEST_F(ReplaceTest, SecondRewriteWaitsUntilTheFirstRestored) {
    // A field that shows neither text nor range, and keeps pasted text selected: the second
    // capture copies whatever is selected once it gets the pasteboard.
    makeUnreadable(fieldA);
    desktop.field(fieldA)->rangeReadable = false;
    desktop.application(editorPid)->pasteLeavesSelection = true;
    const CapturedSelection first = capture();
    desktop.keyDelayMs = 30;
    desktop.clearLogs();

    bool firstDone = false;
    bool secondCopyWaitedForFirst = false;
    std::optional<CapturedSelection> second;
    std::exception_ptr secondError;
    desktop.onCommandKey = [&](const SentKey&) {
        if (desktop.sentKeys().size() == 3) {
            secondCopyWaitedForFirst = firstDone && pasteboardIsUsers() == false; // cleared by its own copy
        }
    };
    auto runFirst = [&]() -> QCoro::Task<void> {
        co_await replacer->replace(QStringLiteral("planet"), first, {});
        firstDone = true;
    };
    auto runSecond = [&]() -> QCoro::Task<void> {
        try {
            second.emplace(co_await replacer->capture({}));
        } catch (...) {
            secondError = std::current_exception();
        }
    };
    QCoro::Task<void> a = runFirst();
    QCoro::Task<void> b = runSecond();
    EXPECT_EQ(replacer->pasteboardWaiterCount(), 1u);
    ASSERT_TRUE(pumpUntil([&] { return firstDone && (second || secondError); }));
    ASSERT_FALSE(secondError);
    EXPECT_EQ(second->text(), QStringLiteral("planet"));
    EXPECT_EQ(textOf(fieldA), QStringLiteral("Hello planet, again"));
    EXPECT_TRUE(pasteboardIsUsers());

    // Copy-back of the first's validation, its paste, then the second's copy, after the first ended.
    const auto& keys = desktop.sentKeys();
    ASSERT_EQ(keys.size(), 3u);
    EXPECT_EQ(keys[0].keyCode, KeyboardEvents::keyCodeC);
    EXPECT_EQ(keys[1].keyCode, KeyboardEvents::keyCodeV);
    EXPECT_EQ(keys[2].keyCode, KeyboardEvents::keyCodeC);
    EXPECT_TRUE(secondCopyWaitedForFirst);
}

TEST_F(ReplaceTest, ValidationCopyWaitsForARunningCapture) {
    // A validation that has to copy takes its turn on the pasteboard too; otherwise its snapshot
    // could catch the capture's cleared pasteboard and put that back instead of the user's.
    makeUnreadable(fieldA);
    const CapturedSelection selection = capture();
    desktop.keyDelayMs = 20;
    desktop.clearLogs();
    bool captureDone = false;
    bool validateDone = false;
    auto runCapture = [&]() -> QCoro::Task<void> {
        co_await replacer->capture({});
        captureDone = true;
    };
    auto runValidate = [&]() -> QCoro::Task<void> {
        co_await replacer->validate(selection, {});
        validateDone = true;
    };
    QCoro::Task<void> a = runCapture();
    QCoro::Task<void> b = runValidate();
    ASSERT_TRUE(pumpUntil([&] { return captureDone && validateDone; }));
    EXPECT_EQ(desktop.sentKeys().size(), 2u);
    EXPECT_TRUE(pasteboardIsUsers());
}

} // namespace
} // namespace parlune::test
