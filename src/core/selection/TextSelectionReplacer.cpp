#include "core/selection/TextSelectionReplacer.h"

#include "core/async/CancellationError.h"
#include "core/async/Clock.h"
#include "core/async/Sleep.h"
#include "core/platform/AccessibilityApi.h"
#include "core/platform/KeyboardEvents.h"
#include "core/platform/Pasteboard.h"
#include "core/platform/PrimarySelection.h"
#include "core/platform/Workspace.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextReplacementError.h"

#include <QUuid>

namespace parlune {

namespace {

using Kind = TextReplacementError::Kind;

[[noreturn]] void fail(Kind kind) {
    throw TextReplacementError(kind);
}

// Reading the replacement's length at the selection's start proves the write only when the text
// there could not have read the same before it: not when either text begins with the other
// ("Hello world" shortened to "Hello").
bool rangeReadProvesWrite(const QString& original, const QString& replacement) {
    return !original.startsWith(replacement) && !replacement.startsWith(original);
}

bool isReadableRange(const std::optional<TextRange>& range) {
    return range && range->location >= 0 && range->length >= 1;
}

std::chrono::nanoseconds toDuration(double seconds) {
    return std::chrono::nanoseconds(static_cast<std::int64_t>(seconds * 1e9));
}

// Offers the saved pasteboard back on every way out of a scope: success, failure and cancellation
// alike. The restore happens only while the pasteboard still holds what this program last wrote
// (change count `since`), so anything written by someone else meanwhile stays.
class PendingRestore {
public:
    PendingRestore(ClipboardManager& clipboard, const ClipboardSnapshot& original, std::int64_t since)
        : clipboard_(clipboard), original_(original), since_(since) {}
    PendingRestore(const PendingRestore&) = delete;
    PendingRestore& operator=(const PendingRestore&) = delete;
    ~PendingRestore() { restoreNow(); }

    void restoreNow() {
        if (pending_) {
            pending_ = false;
            clipboard_.restore(original_, since_);
        }
    }
    void setSince(std::int64_t since) { since_ = since; }

private:
    ClipboardManager& clipboard_;
    const ClipboardSnapshot& original_;
    std::int64_t since_;
    bool pending_ = true;
};

} // namespace

TextSelectionReplacer::TextSelectionReplacer(AccessibilityApi& accessibility, Workspace& workspace,
                                             ClipboardManager& clipboard, KeyboardEvents& keyboard,
                                             AppCompatibilityRegistry compatibilityRegistry,
                                             const Clock& clock)
    : TextSelectionReplacer(accessibility, workspace, clipboard, keyboard, std::move(compatibilityRegistry),
                            clock, Timing{}) {}

TextSelectionReplacer::TextSelectionReplacer(AccessibilityApi& accessibility, Workspace& workspace,
                                             ClipboardManager& clipboard, KeyboardEvents& keyboard,
                                             AppCompatibilityRegistry compatibilityRegistry,
                                             const Clock& clock, Timing timing)
    : accessibility_(accessibility), workspace_(workspace), clipboard_(clipboard), keyboard_(keyboard),
      compatibilityRegistry_(std::move(compatibilityRegistry)), clock_(clock), timing_(timing) {}

// MARK: checks

void TextSelectionReplacer::requireTrust() const {
    if (!accessibility_.isProcessTrusted()) {
        fail(Kind::accessibilityPermissionMissing);
    }
}

QCoro::Task<std::optional<QString>> TextSelectionReplacer::string(TextRange range,
                                                                  const AccessibilityElementRef& element) {
    if (!isReadableRange(range)) {
        co_return std::nullopt;
    }
    co_return co_await accessibility_.stringForRangeAsync(element, range);
}

QCoro::Task<void> TextSelectionReplacer::verifyFocusedTarget(const AccessibilityElementRef& element,
                                                             std::optional<TextRange> range,
                                                             ProcessId processIdentifier) {
    const AccessibilityElementRef focused = co_await accessibility_.focusedElementAsync();
    if (!focused || !focused->isSameElement(*element)) {
        fail(Kind::selectionChanged);
    }
    const auto process = co_await accessibility_.processOfAsync(element);
    if (!process || *process != processIdentifier) {
        fail(Kind::selectionChanged);
    }
    verifyFrontmostProcess(processIdentifier);
    if (range) {
        const auto current = co_await accessibility_.selectedTextRangeAsync(element);
        if (!current || *current != *range) {
            fail(Kind::selectionChanged);
        }
    }
}

void TextSelectionReplacer::verifyFrontmostProcess(ProcessId processIdentifier) {
    const auto frontmost = workspace_.frontmostApplication();
    if (!frontmost || frontmost->processIdentifier != processIdentifier) {
        fail(Kind::selectionChanged);
    }
}

QCoro::Task<void> TextSelectionReplacer::verifyTargetOrFrontmost(const CapturedSelection& selection,
                                                                 ProcessId processIdentifier) {
    if (const auto& target = selection.target()) {
        co_await verifyFocusedTarget(target, selection.selectedRange(), processIdentifier);
    } else {
        verifyFrontmostProcess(processIdentifier);
    }
}

QCoro::Task<void> TextSelectionReplacer::verifyDirectSelection(const CapturedSelection& selection,
                                                               const AccessibilityElementRef& target) {
    const auto range = selection.selectedRange();
    const auto process = selection.applicationProcessIdentifier();
    if (!range || !process) {
        fail(Kind::unsupportedTarget);
    }
    co_await verifyFocusedTarget(target, range, *process);
    const auto text = co_await accessibility_.selectedTextAsync(target);
    if (!text || *text != selection.text()) {
        fail(Kind::selectionChanged);
    }
}

// MARK: capture

QCoro::Task<CapturedSelection> TextSelectionReplacer::capture(std::stop_token token) {
    CapturedSelection selection = co_await captureAnyText(token);
    // Blanks alone are no text to rewrite; the model would only invent some.
    if (selection.text().trimmed().isEmpty()) {
        fail(Kind::noSelectedText);
    }
    co_return selection;
}

QCoro::Task<CapturedSelection> TextSelectionReplacer::captureAnyText(std::stop_token token) {
    throwIfCancelled(token);
    requireTrust();

    AccessibilityElementRef element = co_await accessibility_.focusedElementAsync();
    throwIfCancelled(token);
    if (!element) {
        co_return co_await captureOpaqueFrontmostSelection(token);
    }
    const auto process = co_await accessibility_.processOfAsync(element);
    if (!process) {
        fail(Kind::unableToReadFocusedElement);
    }
    // Focus may have moved between the key press and now.
    verifyFrontmostProcess(*process);

    const auto range = co_await accessibility_.selectedTextRangeAsync(element);
    if (range && range->length == 0) {
        fail(Kind::noSelectedText);
    }

    const auto selectedText = co_await accessibility_.selectedTextAsync(element);
    throwIfCancelled(token);
    if (selectedText && !selectedText->isEmpty() && isReadableRange(range)) {
        const auto bundleIdentifier = workspace_.bundleIdentifier(*process);
        const auto settable = co_await accessibility_.isSelectedTextSettableAsync(element);
        const bool direct = settable.status == 0 && settable.settable && bundleIdentifier &&
                            compatibilityRegistry_.permitsDirectReplacement(bundleIdentifier);
        co_return CapturedSelection(QUuid::createUuid(), *selectedText, bundleIdentifier, process, range,
                                    direct ? SelectionReplacementStrategy::directAccessibility
                                           : SelectionReplacementStrategy::clipboardFallback,
                                    element);
    }

    const auto frontmost = workspace_.frontmostApplication();
    if (!frontmost || frontmost->processIdentifier != *process) {
        fail(Kind::selectionChanged);
    }
    auto bundleIdentifier = workspace_.bundleIdentifier(*process);
    if (!bundleIdentifier) {
        bundleIdentifier = frontmost->bundleIdentifier;
    }
    if (isReadableRange(range)) {
        const auto text = co_await accessibility_.stringForRangeAsync(element, *range);
        throwIfCancelled(token);
        if (text && !text->isEmpty()) {
            // Text read only by range may not be what a direct write would replace: always paste.
            co_return CapturedSelection(QUuid::createUuid(), *text, bundleIdentifier, process, range,
                                        SelectionReplacementStrategy::clipboardFallback, element);
        }
    }
    co_return co_await captureFocusedElementByCopy(element, *process, range, bundleIdentifier, token);
}

QCoro::Task<CapturedSelection> TextSelectionReplacer::captureOpaqueFrontmostSelection(std::stop_token token) {
    const auto frontmost = workspace_.frontmostApplication();
    if (!frontmost) {
        fail(Kind::unableToReadFocusedElement);
    }
    const ProcessId process = frontmost->processIdentifier;
    FirstComeLock::Lease lease = co_await pasteboardGuard_.acquire(token);
    verifyFrontmostProcess(process);
    QString copied = co_await copySelectedTextRestoringClipboard(process, frontmost->bundleIdentifier, token);
    verifyFrontmostProcess(process);
    co_return CapturedSelection(QUuid::createUuid(), std::move(copied), frontmost->bundleIdentifier, process,
                                std::nullopt, SelectionReplacementStrategy::clipboardFallback, nullptr);
}

QCoro::Task<CapturedSelection> TextSelectionReplacer::captureFocusedElementByCopy(
    AccessibilityElementRef element, ProcessId process, std::optional<TextRange> range,
    std::optional<QString> bundleIdentifier, std::stop_token token) {
    FirstComeLock::Lease lease = co_await pasteboardGuard_.acquire(token);
    co_await verifyFocusedTarget(element, range, process);
    QString copied = co_await copySelectedTextRestoringClipboard(process, bundleIdentifier, token);
    co_await verifyFocusedTarget(element, range, process);
    co_return CapturedSelection(QUuid::createUuid(), std::move(copied), std::move(bundleIdentifier), process,
                                range, SelectionReplacementStrategy::clipboardFallback, std::move(element));
}

// MARK: copy through the pasteboard

QCoro::Task<QString> TextSelectionReplacer::copySelectedTextRestoringClipboard(
    ProcessId process, const std::optional<QString>& bundleIdentifier, std::stop_token token) {
    requireTrust();
    const AppCompatibilityRegistry::ApplicationChords chords =
        compatibilityRegistry_.chordsFor(bundleIdentifier);
    // A terminal (no paste chord) already put its selection in the primary selection: where the
    // desktop has one it is read there, since even a terminal's copy chord reaches the program
    // running in it when nothing is selected.
    const std::optional<KeyChord> copyChord = chords.paste || !primarySelection_ ? chords.copy : std::nullopt;
    if (!copyChord) {
        // No key may be sent here: the selection is taken from where the application already put it.
        std::optional<QString> text;
        if (primarySelection_) {
            text = co_await primarySelection_->textHeldBy(process);
            throwIfCancelled(token);
        }
        if (!text || text->isEmpty()) {
            fail(Kind::noSelectedText);
        }
        co_return *text;
    }
    const ClipboardSnapshot original = co_await clipboard_.capture();
    throwIfCancelled(token);
    clipboard_.prepareForLocalCapture();
    const std::int64_t baseline = clipboard_.changeCount();
    PendingRestore restore(clipboard_, original, baseline);

    if (!co_await keyboard_.sendChord(*copyChord, process, token)) {
        fail(Kind::unableToCreateKeyboardEvent);
    }
    std::optional<CopiedText> copied;
    try {
        copied = co_await waitForCopiedString(baseline, timing_.copyTimeout, token);
    } catch (const CancellationError&) {
        // A change after our copy key is the target's answer to it, as on the way without a
        // cancel: ours to undo, or the selected text would stay on the user's clipboard.
        restore.setSince(clipboard_.changeCount());
        throw;
    }
    if (!copied) {
        fail(Kind::noSelectedText);
    }
    // Re-written as our own transient string so that history tools that saw the copy skip it,
    // then at once replaced by the user's contents.
    clipboard_.setTransientLocalString(copied->text);
    restore.setSince(clipboard_.changeCount());
    restore.restoreNow();
    co_return copied->text;
}

QCoro::Task<std::optional<TextSelectionReplacer::CopiedText>>
TextSelectionReplacer::waitForCopiedString(std::int64_t baseline, double timeout, std::stop_token token) {
    // Looks once more after the time is up: a process that was not scheduled for a while may find
    // the copy arrived meanwhile, and giving up then would leave it on the pasteboard for good.
    const double start = clock_.uptimeSeconds();
    for (;;) {
        throwIfCancelled(token);
        const bool timeIsUp = clock_.uptimeSeconds() - start >= timeout;
        // The count first: the string is read only once somebody wrote.
        const std::int64_t count = clipboard_.changeCount();
        if (count != baseline) {
            auto text = co_await clipboard_.currentString();
            if (text && !text->isEmpty()) {
                co_return CopiedText{std::move(*text), count};
            }
        }
        if (timeIsUp) {
            co_return std::nullopt;
        }
        co_await sleepFor(toDuration(timing_.copyPollInterval), token);
    }
}

// MARK: validation

QCoro::Task<void> TextSelectionReplacer::validate(CapturedSelection selection, std::stop_token token) {
    throwIfCancelled(token);
    requireTrust();
    if (selection.target() &&
        selection.replacementStrategy() == SelectionReplacementStrategy::directAccessibility) {
        co_await verifyDirectSelection(selection, selection.target());
        co_return;
    }
    co_await verifyClipboardFallbackSelection(std::move(selection), false, token);
}

QCoro::Task<void> TextSelectionReplacer::verifyClipboardFallbackSelection(CapturedSelection selection,
                                                                          bool holdsPasteboard,
                                                                          std::stop_token token) {
    const auto process = selection.applicationProcessIdentifier();
    if (!process) {
        fail(Kind::unsupportedTarget);
    }
    co_await verifyTargetOrFrontmost(selection, *process);
    if (const auto& target = selection.target()) {
        if (const auto text = co_await accessibility_.selectedTextAsync(target)) {
            if (*text != selection.text()) {
                fail(Kind::selectionChanged);
            }
            co_return;
        }
        if (const auto range = selection.selectedRange()) {
            if (const auto text = co_await string(*range, target)) {
                if (*text != selection.text()) {
                    fail(Kind::selectionChanged);
                }
                co_return;
            }
        }
    }

    // Nothing readable: copy the selection again. A copy changes the pasteboard, so it waits its
    // turn like every other pasteboard operation unless the caller already holds the pasteboard.
    FirstComeLock::Lease lease;
    if (!holdsPasteboard) {
        lease = co_await pasteboardGuard_.acquire(token);
    }
    const QString copied =
        co_await copySelectedTextRestoringClipboard(*process, selection.applicationBundleIdentifier(), token);
    co_await verifyTargetOrFrontmost(selection, *process);
    if (copied != selection.text()) {
        fail(Kind::selectionChanged);
    }
}

// MARK: replacement

QCoro::Task<void> TextSelectionReplacer::replace(QString replacement, CapturedSelection selection,
                                                 std::stop_token token) {
    throwIfCancelled(token);
    requireTrust();
    const AccessibilityElementRef target = selection.target();
    if (target && selection.replacementStrategy() == SelectionReplacementStrategy::directAccessibility) {
        co_await verifyDirectSelection(selection, target);
        if (co_await accessibility_.setSelectedTextAsync(target, replacement) == 0) {
            // Accepted: confirm at once. An unconfirmed write is not retried by pasting, which
            // could insert the text twice.
            if (co_await accessibility_.selectedTextAsync(target) == replacement) {
                co_return;
            }
            if (const auto range = selection.selectedRange();
                range && rangeReadProvesWrite(selection.text(), replacement)) {
                const TextRange written{range->location, replacement.size()};
                if (co_await string(written, target) == replacement) {
                    co_return;
                }
            }
            fail(Kind::replacementNotConfirmed);
        }
        // Refused by the element: paste instead.
    }
    co_await replaceByPasting(std::move(replacement), std::move(selection), token);
}

QCoro::Task<void> TextSelectionReplacer::replaceByPasting(QString replacement, CapturedSelection selection,
                                                          std::stop_token token) {
    if (!compatibilityRegistry_.chordsFor(selection.applicationBundleIdentifier()).paste) {
        fail(Kind::unsupportedTarget); // before anything is written or sent
    }
    FirstComeLock::Lease lease = co_await pasteboardGuard_.acquire(token);
    co_await verifyClipboardFallbackSelection(selection, true, token);
    ClipboardSnapshot original = co_await clipboard_.capture();
    throwIfCancelled(token);
    co_await paste(std::move(replacement), std::move(selection), std::move(original), token);
}

QCoro::Task<void> TextSelectionReplacer::paste(QString replacement, CapturedSelection selection,
                                               ClipboardSnapshot original, std::stop_token token) {
    requireTrust();
    const auto process = selection.applicationProcessIdentifier();
    if (!process) {
        fail(Kind::unsupportedTarget);
    }
    clipboard_.setTransientLocalString(replacement);
    const std::int64_t mark = clipboard_.changeCount();
    PendingRestore restore(clipboard_, original, mark);

    co_await verifyTargetOrFrontmost(selection, *process);
    if (clipboard_.changeCount() != mark) {
        fail(Kind::selectionChanged); // another writer came in between
    }
    const auto pasteChord = compatibilityRegistry_.chordsFor(selection.applicationBundleIdentifier()).paste;
    if (!pasteChord || !co_await keyboard_.sendChord(*pasteChord, *process, token)) {
        fail(Kind::unableToCreateKeyboardEvent);
    }
    const bool confirmed = co_await waitForPasteConfirmation(replacement, selection, mark,
                                                             timing_.pasteConfirmationTimeout, token);
    restore.restoreNow();
    if (!confirmed) {
        fail(Kind::replacementNotConfirmed);
    }
}

QCoro::Task<TextSelectionReplacer::PasteEvidence>
TextSelectionReplacer::pasteEvidence(const QString& replacement, const CapturedSelection& selection,
                                     std::int64_t pasteboardChangeCount, double elapsed) {
    const qsizetype length = replacement.size(); // UTF-16 code units, as ranges count
    const auto range = selection.selectedRange();
    const AccessibilityElementRef& target = selection.target();
    const auto process = selection.applicationProcessIdentifier();

    if (target && range && range->location >= 0 && length >= 1 &&
        rangeReadProvesWrite(selection.text(), replacement)) {
        if (co_await accessibility_.stringForRangeAsync(target, {range->location, length}) == replacement) {
            co_return PasteEvidence::seen;
        }
    }
    if (target && co_await accessibility_.selectedTextAsync(target) == replacement) {
        co_return PasteEvidence::seen;
    }
    const bool pasteboardSteady = clipboard_.changeCount() == pasteboardChangeCount;
    if (range) {
        if (!pasteboardSteady || !target || co_await accessibility_.processOfAsync(target) != process) {
            co_return PasteEvidence::none;
        }
        const auto current = co_await accessibility_.selectedTextRangeAsync(target);
        // The caret right after the pasted text, or the pasted text left selected. A replacement as
        // long as the original would leave the untouched selection looking pasted, so that shape
        // counts only when the lengths differ.
        if (current == TextRange{range->location + length, 0} ||
            (current == TextRange{range->location, length} && length != range->length)) {
            co_return PasteEvidence::likely;
        }
        co_return PasteEvidence::none;
    }
    // Nothing to read back: a paste that disturbed nothing for a while counts.
    if (elapsed < timing_.steadyPasteInterval || !pasteboardSteady) {
        co_return PasteEvidence::none;
    }
    const auto frontmost = workspace_.frontmostApplication();
    if (!frontmost || frontmost->processIdentifier != process) {
        co_return PasteEvidence::none;
    }
    if (target) {
        if (co_await accessibility_.processOfAsync(target) != process) {
            co_return PasteEvidence::none;
        }
        const AccessibilityElementRef focused = co_await accessibility_.focusedElementAsync();
        if (!focused || !focused->isSameElement(*target)) {
            co_return PasteEvidence::none;
        }
    }
    co_return PasteEvidence::likely;
}

QCoro::Task<bool> TextSelectionReplacer::waitForPasteConfirmation(QString replacement,
                                                                  CapturedSelection selection,
                                                                  std::int64_t pasteboardChangeCount,
                                                                  double timeout, std::stop_token token) {
    // Where the pasteboard tells when the target fetched the pasted data, that fetch is the
    // decisive sign: indirect signs (caret, selection, a quiet moment) count only with it, and the
    // user's contents go back only after it plus a moment for the target to finish inserting.
    // Restoring earlier would have a slow target paste the user's old contents instead.
    const Pasteboard& pasteboard = clipboard_.pasteboard();
    const bool awaitsFetch = pasteboard.reportsFetches();
    std::optional<double> fetchedAt;
    bool seen = false;

    // As with the copy, one last look after the time is up.
    const double start = clock_.uptimeSeconds();
    for (;;) {
        throwIfCancelled(token);
        const double now = clock_.uptimeSeconds();
        if (!awaitsFetch) {
            if (co_await pasteEvidence(replacement, selection, pasteboardChangeCount, now - start) !=
                PasteEvidence::none) {
                co_return true;
            }
        } else {
            if (!fetchedAt && pasteboard.contentsWereFetched(pasteboardChangeCount)) {
                fetchedAt = now;
            }
            if (fetchedAt && now - *fetchedAt >= timing_.fetchGrace) {
                co_return true;
            }
            if (!seen) {
                seen = co_await pasteEvidence(replacement, selection, pasteboardChangeCount, now - start) ==
                       PasteEvidence::seen;
            }
        }
        if (now - start >= timeout) {
            co_return seen || fetchedAt.has_value();
        }
        co_await sleepFor(toDuration(timing_.pastePollInterval), token);
    }
}

} // namespace parlune
