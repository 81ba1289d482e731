#pragma once

#include "core/async/FirstComeLock.h"
#include "core/platform/AccessibilityElement.h"
#include "core/platform/ProcessId.h"
#include "core/platform/TextRange.h"
#include "core/selection/AppCompatibilityRegistry.h"
#include "core/selection/ClipboardSnapshot.h"
#include "core/selection/SelectionReplacing.h"

#include <QString>

#include <optional>
#include <stop_token>
#include <utility>

namespace parlune {

class AccessibilityApi;
class ClipboardManager;
class Clock;
class KeyboardEvents;
class PrimarySelection;
class Workspace;

// Reads the focused application's selection through accessibility, or copies it through the
// pasteboard where accessibility cannot read it; writes the replacement directly for the
// applications the registry lists and pastes it everywhere else, putting the user's pasteboard
// back afterwards unless someone else wrote to it meanwhile. Main thread only.
class TextSelectionReplacer final : public SelectionReplacing {
public:
    struct Timing {
        double copyTimeout = 0.6;              // seconds for the target to answer command-C
        double pasteConfirmationTimeout = 1.0; // seconds for the target to show the pasted text
        double copyPollInterval = 0.02;
        double pastePollInterval = 0.01;
        // Without a range to read back, a paste that disturbed nothing for this long counts.
        double steadyPasteInterval = 0.12;
        // After the target fetched the pasted data, it may still be inserting it.
        double fetchGrace = 0.1;
    };

    TextSelectionReplacer(AccessibilityApi& accessibility, Workspace& workspace, ClipboardManager& clipboard,
                          KeyboardEvents& keyboard, AppCompatibilityRegistry compatibilityRegistry,
                          const Clock& clock);
    TextSelectionReplacer(AccessibilityApi& accessibility, Workspace& workspace, ClipboardManager& clipboard,
                          KeyboardEvents& keyboard, AppCompatibilityRegistry compatibilityRegistry,
                          const Clock& clock, Timing timing);

    QCoro::Task<CapturedSelection> capture(std::stop_token token) override;
    QCoro::Task<void> validate(CapturedSelection selection, std::stop_token token) override;
    QCoro::Task<void> replace(QString replacement, CapturedSelection selection,
                              std::stop_token token) override;

    const AppCompatibilityRegistry& compatibilityRegistry() const { return compatibilityRegistry_; }
    // Where applications that may not be sent a copy key (terminals) keep their selection. Without
    // it their selection cannot be captured.
    void setPrimarySelection(PrimarySelection* primary) { primarySelection_ = primary; }
    // For tests and diagnostics: whether a pasteboard operation runs now, and how many wait.
    bool isPasteboardBusy() const { return pasteboardGuard_.isHeld(); }
    std::size_t pasteboardWaiterCount() const { return pasteboardGuard_.waiterCount(); }

private:
    struct CopiedText {
        QString text;
        std::int64_t changeCount = 0;
    };

    void requireTrust() const;
    QCoro::Task<void> verifyFocusedTarget(const AccessibilityElementRef& element,
                                          std::optional<TextRange> range, ProcessId processIdentifier);
    void verifyFrontmostProcess(ProcessId processIdentifier);
    QCoro::Task<void> verifyDirectSelection(const CapturedSelection& selection,
                                            const AccessibilityElementRef& target);
    QCoro::Task<void> verifyTargetOrFrontmost(const CapturedSelection& selection,
                                              ProcessId processIdentifier);
    QCoro::Task<std::optional<QString>> string(TextRange range, const AccessibilityElementRef& element);

    QCoro::Task<CapturedSelection> captureAnyText(std::stop_token token);
    QCoro::Task<CapturedSelection> captureOpaqueFrontmostSelection(std::stop_token token);
    QCoro::Task<CapturedSelection> captureFocusedElementByCopy(AccessibilityElementRef element,
                                                               ProcessId process,
                                                               std::optional<TextRange> range,
                                                               std::optional<QString> bundleIdentifier,
                                                               std::stop_token token);
    // The selection copied with the application's copy chord, or read from the primary selection
    // where no key may be sent; the user's pasteboard is as it was afterwards.
    QCoro::Task<QString> copySelectedTextRestoringClipboard(ProcessId process,
                                                            const std::optional<QString>& bundleIdentifier,
                                                            std::stop_token token);
    QCoro::Task<std::optional<CopiedText>> waitForCopiedString(std::int64_t baseline, double timeout,
                                                               std::stop_token token);
    QCoro::Task<void> verifyClipboardFallbackSelection(CapturedSelection selection, bool holdsPasteboard,
                                                       std::stop_token token);
    QCoro::Task<void> replaceByPasting(QString replacement, CapturedSelection selection,
                                       std::stop_token token);
    QCoro::Task<void> paste(QString replacement, CapturedSelection selection, ClipboardSnapshot original,
                            std::stop_token token);
    QCoro::Task<bool> waitForPasteConfirmation(QString replacement, CapturedSelection selection,
                                               std::int64_t pasteboardChangeCount, double timeout,
                                               std::stop_token token);
    // How strongly the target shows the paste: its text read back (seen), or only a caret, a
    // selection or a quiet moment consistent with it (likely).
    enum class PasteEvidence { none, likely, seen };
    QCoro::Task<PasteEvidence> pasteEvidence(const QString& replacement, const CapturedSelection& selection,
                                             std::int64_t pasteboardChangeCount, double elapsed);

    AccessibilityApi& accessibility_;
    Workspace& workspace_;
    ClipboardManager& clipboard_;
    KeyboardEvents& keyboard_;
    const AppCompatibilityRegistry compatibilityRegistry_;
    const Clock& clock_;
    const Timing timing_;
    FirstComeLock pasteboardGuard_;
    PrimarySelection* primarySelection_ = nullptr;
};

} // namespace parlune
