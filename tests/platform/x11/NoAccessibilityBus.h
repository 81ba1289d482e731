#pragma once

#include "core/platform/AccessibilityApi.h"

namespace parlune::test {

// A desktop without an accessibility bus: trusted (XTest is there) but no focused element, so
// every selection goes through the clipboard.
class NoAccessibilityBus final : public AccessibilityApi {
public:
    bool isProcessTrusted() const override { return true; }
    bool requestTrustWithPrompt() override { return true; }
    AccessibilityElementRef focusedElement() override { return nullptr; }
    std::optional<ProcessId> processOf(const AccessibilityElement&) override { return std::nullopt; }
    std::optional<TextRange> selectedTextRange(const AccessibilityElement&) override { return std::nullopt; }
    std::optional<QString> selectedText(const AccessibilityElement&) override { return std::nullopt; }
    std::optional<QString> stringForRange(const AccessibilityElement&, TextRange) override {
        return std::nullopt;
    }
    SettableAnswer isSelectedTextSettable(const AccessibilityElement&) override { return {-1, false}; }
    int setSelectedText(const AccessibilityElement&, const QString&) override { return -1; }
};

} // namespace parlune::test
