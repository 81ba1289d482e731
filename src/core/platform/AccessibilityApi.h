#pragma once

#include "core/platform/AccessibilityElement.h"
#include "core/platform/ProcessId.h"
#include "core/platform/TextRange.h"

#include <QCoro/QCoroTask>
#include <QString>

#include <optional>

namespace parlune {

// The accessibility interface of the desktop: who has keyboard focus and what is selected there.
// Every query answers "absent" (nullopt / null) when the platform cannot answer; none throws.
class AccessibilityApi {
public:
    struct SettableAnswer {
        int status = 0; // 0 when the question could be answered
        bool settable = false;
    };

    virtual ~AccessibilityApi() = default;

    // Whether this program may read and drive other applications, without prompting.
    virtual bool isProcessTrusted() const = 0;
    // The same check, asking the platform to prompt the user when not trusted; returns its answer.
    virtual bool requestTrustWithPrompt() = 0;

    // The element with keyboard focus anywhere on the desktop; null when there is none.
    virtual AccessibilityElementRef focusedElement() = 0;
    // The process owning the element; nullopt when it cannot be read.
    virtual std::optional<ProcessId> processOf(const AccessibilityElement& element) = 0;
    // The selection's range in UTF-16 code units; nullopt when the element reports none.
    virtual std::optional<TextRange> selectedTextRange(const AccessibilityElement& element) = 0;
    // The selected text; nullopt when it cannot be read.
    virtual std::optional<QString> selectedText(const AccessibilityElement& element) = 0;
    // The text in `range` (UTF-16 units). Callers never pass a negative location or a length
    // below 1; nullopt when it cannot be read.
    virtual std::optional<QString> stringForRange(const AccessibilityElement& element, TextRange range) = 0;
    // Whether the selected text may be written.
    virtual SettableAnswer isSelectedTextSettable(const AccessibilityElement& element) = 0;
    // Replaces the selected text; returns a status, 0 meaning the platform accepted the write.
    virtual int setSelectedText(const AccessibilityElement& element, const QString& text) = 0;

    // The same questions without blocking the caller. A platform whose answers come from other
    // processes asks them elsewhere, each within its own time budget (a question that runs out of
    // time answers "absent", or a non-zero status), and resumes the caller on the main thread.
    // The defaults answer at once through the calls above.
    virtual QCoro::Task<AccessibilityElementRef> focusedElementAsync();
    virtual QCoro::Task<std::optional<ProcessId>> processOfAsync(const AccessibilityElementRef& element);
    virtual QCoro::Task<std::optional<TextRange>>
    selectedTextRangeAsync(const AccessibilityElementRef& element);
    virtual QCoro::Task<std::optional<QString>> selectedTextAsync(const AccessibilityElementRef& element);
    virtual QCoro::Task<std::optional<QString>> stringForRangeAsync(const AccessibilityElementRef& element,
                                                                    TextRange range);
    virtual QCoro::Task<SettableAnswer> isSelectedTextSettableAsync(const AccessibilityElementRef& element);
    virtual QCoro::Task<int> setSelectedTextAsync(const AccessibilityElementRef& element,
                                                  const QString& text);
};

} // namespace parlune
