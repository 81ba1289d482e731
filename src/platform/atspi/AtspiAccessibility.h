#pragma once

#include "core/platform/AccessibilityApi.h"

#include <chrono>
#include <functional>
#include <memory>
#include <optional>

namespace parlune {
class Workspace;
}

namespace parlune::atspi {

class AtspiWorker;

// The accessibility interface over AT-SPI 2. The focused element is looked for only in the
// active window of the frontmost process (a whole-desktop search would wake every application on
// the bus): the deepest focused object there that offers text, within a node and a time budget.
// GTK 3 applications are on the bus as they are; Qt applications only with
// QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1. Offsets on the bus count code points (GTK) or UTF-16 units
// (Qt) and are converted to UTF-16 both ways. Writes are never trusted: both toolkits report
// success for inserts that did nothing, so a write reports success only when the text reads back.
//
// Every bus call runs on one worker thread with its own connection. An application answering a
// call may itself be waiting for us (a Qt editor asked to paste blocks until our clipboard data
// arrives), so the main thread must keep serving the clipboard meanwhile: the asynchronous forms
// resume the caller when the answer comes or, when the question's budget runs out first, answer
// "absent" and leave the late answer unused. The blocking forms exist for tools and tests.
//
// On X11 nothing has to be granted to drive other applications; "trusted" means the server offers
// XTest, without which no synthetic key can be sent. Without an accessibility bus there is no
// focused element and capture goes through the clipboard.
class AtspiAccessibility final : public AccessibilityApi {
public:
    struct Budgets {
        std::chrono::milliseconds query{1000};       // one read of one element
        std::chrono::milliseconds focusSearch{1200}; // finding the focused element, answer included
        std::chrono::milliseconds treeWalk{600};     // of which walking the window's tree
        std::chrono::milliseconds write{2000};       // replacing the selected text, read-back included
    };

    AtspiAccessibility(Workspace& workspace, std::function<bool()> syntheticKeysAvailable);
    AtspiAccessibility(Workspace& workspace, std::function<bool()> syntheticKeysAvailable, Budgets budgets);
    // On a worker already started for another AT-SPI user in this process (the focus workspace).
    AtspiAccessibility(Workspace& workspace, std::function<bool()> syntheticKeysAvailable,
                       std::shared_ptr<AtspiWorker> worker);
    ~AtspiAccessibility() override;

    // Call before the QGuiApplication is made. libatspi attaches the private connections it opens
    // to applications to GLib's default context; a GLib-based Qt event loop would then dispatch
    // them on the main thread, beside the accessibility worker that owns them. This keeps Qt's loop
    // off GLib (QT_NO_GLIB), so only the worker ever dispatches them.
    static void prepareProcess();

    // Whether the accessibility bus answered at start-up (waits for the worker's first connection).
    bool isBusAvailable() const;

    bool isProcessTrusted() const override;
    bool requestTrustWithPrompt() override;

    AccessibilityElementRef focusedElement() override;
    std::optional<ProcessId> processOf(const AccessibilityElement& element) override;
    std::optional<TextRange> selectedTextRange(const AccessibilityElement& element) override;
    std::optional<QString> selectedText(const AccessibilityElement& element) override;
    std::optional<QString> stringForRange(const AccessibilityElement& element, TextRange range) override;
    SettableAnswer isSelectedTextSettable(const AccessibilityElement& element) override;
    int setSelectedText(const AccessibilityElement& element, const QString& text) override;

    QCoro::Task<AccessibilityElementRef> focusedElementAsync() override;
    QCoro::Task<std::optional<ProcessId>> processOfAsync(const AccessibilityElementRef& element) override;
    QCoro::Task<std::optional<TextRange>>
    selectedTextRangeAsync(const AccessibilityElementRef& element) override;
    QCoro::Task<std::optional<QString>> selectedTextAsync(const AccessibilityElementRef& element) override;
    QCoro::Task<std::optional<QString>> stringForRangeAsync(const AccessibilityElementRef& element,
                                                            TextRange range) override;
    QCoro::Task<SettableAnswer> isSelectedTextSettableAsync(const AccessibilityElementRef& element) override;
    QCoro::Task<int> setSelectedTextAsync(const AccessibilityElementRef& element,
                                          const QString& text) override;

    // Statuses of setSelectedText and isSelectedTextSettable.
    static constexpr int notEditableStatus = 1;
    static constexpr int writeRefusedStatus = 2;
    static constexpr int notReadBackStatus = 3;
    static constexpr int timedOutStatus = 4;

private:
    std::function<AccessibilityElementRef()> focusSearch();

    Workspace& workspace_;
    std::function<bool()> syntheticKeysAvailable_;
    Budgets budgets_;
    std::shared_ptr<AtspiWorker> worker_;
};

} // namespace parlune::atspi
