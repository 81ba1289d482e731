#pragma once

#include "core/platform/AccessibilityApi.h"

#include <functional>
#include <optional>

typedef struct _AtspiAccessible AtspiAccessible;

namespace parlune {
class Workspace;
}

namespace parlune::x11 {

class AtspiElement;

// The accessibility interface over AT-SPI 2. The focused element is looked for only in the
// active window of the frontmost process (a whole-desktop search would wake every application on
// the bus): the deepest focused object there that offers text. GTK 3 applications are on the bus
// as they are; Qt applications only with QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1. Offsets on the bus
// count code points (GTK) or UTF-16 units (Qt) and are converted to UTF-16 both ways. Writes are
// never trusted: both toolkits report success for inserts that did nothing, so a write reports
// success only when the text reads back.
// On X11 nothing has to be granted to drive other applications; "trusted" means the server offers
// XTest, without which no synthetic key can be sent. Without an accessibility bus there is no
// focused element and capture goes through the clipboard.
class AtspiAccessibility final : public AccessibilityApi {
public:
    AtspiAccessibility(Workspace& workspace, std::function<bool()> syntheticKeysAvailable);

    // Whether the accessibility bus answered at start-up.
    bool isBusAvailable() const { return busAvailable_; }

    bool isProcessTrusted() const override;
    bool requestTrustWithPrompt() override;
    AccessibilityElementRef focusedElement() override;
    std::optional<ProcessId> processOf(const AccessibilityElement& element) override;
    std::optional<TextRange> selectedTextRange(const AccessibilityElement& element) override;
    std::optional<QString> selectedText(const AccessibilityElement& element) override;
    std::optional<QString> stringForRange(const AccessibilityElement& element, TextRange range) override;
    SettableAnswer isSelectedTextSettable(const AccessibilityElement& element) override;
    int setSelectedText(const AccessibilityElement& element, const QString& text) override;

    // Statuses of setSelectedText.
    static constexpr int notEditableStatus = 1;
    static constexpr int writeRefusedStatus = 2;
    static constexpr int notReadBackStatus = 3;

private:
    struct BusRange {
        int start = 0;
        int end = 0;
    };
    std::optional<BusRange> busSelection(const AtspiElement& element);
    std::optional<int> toUtf16(const AtspiElement& element, int busOffset);
    std::optional<int> toBusOffset(const AtspiElement& element, std::int64_t utf16Offset);
    std::optional<QString> busText(const AtspiElement& element, int start, int end);

    Workspace& workspace_;
    std::function<bool()> syntheticKeysAvailable_;
    bool busAvailable_ = false;
};

} // namespace parlune::x11
