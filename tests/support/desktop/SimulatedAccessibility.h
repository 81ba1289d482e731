#pragma once

#include "core/platform/AccessibilityApi.h"

namespace parlune::test {

class SimulatedDesktop;

// A handle on one simulated text field.
class SimulatedElement final : public AccessibilityElement {
public:
    explicit SimulatedElement(int field) : field_(field) {}
    int field() const { return field_; }
    bool isSameElement(const AccessibilityElement& other) const override;
    std::int64_t hashValue() const override { return field_; }

private:
    int field_;
};

// Accessibility over the simulated desktop's fields, honouring each field's and application's
// switches for what can be read or written.
class SimulatedAccessibility final : public AccessibilityApi {
public:
    explicit SimulatedAccessibility(SimulatedDesktop& desktop) : desktop_(desktop) {}

    bool isProcessTrusted() const override;
    bool requestTrustWithPrompt() override;
    AccessibilityElementRef focusedElement() override;
    std::optional<ProcessId> processOf(const AccessibilityElement& element) override;
    std::optional<TextRange> selectedTextRange(const AccessibilityElement& element) override;
    std::optional<QString> selectedText(const AccessibilityElement& element) override;
    std::optional<QString> stringForRange(const AccessibilityElement& element, TextRange range) override;
    SettableAnswer isSelectedTextSettable(const AccessibilityElement& element) override;
    int setSelectedText(const AccessibilityElement& element, const QString& text) override;

    // Calls of stringForRange with a range the contract forbids (negative location, length < 1).
    int invalidRangeRequests = 0;

    // Status reported for a refused write (the macOS value of "cannot complete").
    static constexpr int refusedStatus = -25204;

private:
    SimulatedDesktop& desktop_;
};

} // namespace parlune::test
