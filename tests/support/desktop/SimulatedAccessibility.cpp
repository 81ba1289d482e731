#include "desktop/SimulatedAccessibility.h"

#include "desktop/SimulatedDesktop.h"

namespace parlune::test {

namespace {
int fieldOf(const AccessibilityElement& element) {
    const auto* simulated = dynamic_cast<const SimulatedElement*>(&element);
    return simulated ? simulated->field() : 0;
}
} // namespace

bool SimulatedElement::isSameElement(const AccessibilityElement& other) const {
    return fieldOf(other) == field_;
}

bool SimulatedAccessibility::isProcessTrusted() const {
    return desktop_.trusted;
}

bool SimulatedAccessibility::requestTrustWithPrompt() {
    ++desktop_.promptCount;
    if (desktop_.grantOnPrompt) {
        desktop_.trusted = true;
    }
    return desktop_.trusted;
}

AccessibilityElementRef SimulatedAccessibility::focusedElement() {
    desktop_.runAccessibilityQueryHook();
    if (desktop_.staleAccessibilityFocus != 0) {
        return std::make_shared<SimulatedElement>(desktop_.staleAccessibilityFocus);
    }
    const auto front = desktop_.frontmost();
    if (!front) {
        return nullptr;
    }
    const SimulatedApplication* app = desktop_.application(*front);
    if (!app || !app->exposesFocusedElement) {
        return nullptr;
    }
    const int field = desktop_.focusedFieldOf(*front);
    if (field == 0) {
        return nullptr;
    }
    return std::make_shared<SimulatedElement>(field);
}

std::optional<ProcessId> SimulatedAccessibility::processOf(const AccessibilityElement& element) {
    desktop_.runAccessibilityQueryHook();
    const SimulatedField* field = desktop_.field(fieldOf(element));
    if (!field) {
        return std::nullopt;
    }
    const SimulatedApplication* app = desktop_.application(field->owner);
    if (!app || !app->processReadable) {
        return std::nullopt;
    }
    return field->owner;
}

std::optional<TextRange> SimulatedAccessibility::selectedTextRange(const AccessibilityElement& element) {
    desktop_.runAccessibilityQueryHook();
    const SimulatedField* field = desktop_.field(fieldOf(element));
    if (!field || !field->rangeReadable) {
        return std::nullopt;
    }
    return field->selection;
}

std::optional<QString> SimulatedAccessibility::selectedText(const AccessibilityElement& element) {
    desktop_.runAccessibilityQueryHook();
    const SimulatedField* field = desktop_.field(fieldOf(element));
    if (!field || !field->selectedTextReadable) {
        return std::nullopt;
    }
    return field->selectedText();
}

std::optional<QString> SimulatedAccessibility::stringForRange(const AccessibilityElement& element,
                                                              TextRange range) {
    desktop_.runAccessibilityQueryHook();
    if (range.location < 0 || range.length < 1) {
        ++invalidRangeRequests;
        return std::nullopt;
    }
    const SimulatedField* field = desktop_.field(fieldOf(element));
    if (!field || !field->stringForRangeReadable || range.location + range.length > field->text.size()) {
        return std::nullopt;
    }
    return field->text.mid(range.location, range.length);
}

AccessibilityApi::SettableAnswer
SimulatedAccessibility::isSelectedTextSettable(const AccessibilityElement& element) {
    desktop_.runAccessibilityQueryHook();
    const SimulatedField* field = desktop_.field(fieldOf(element));
    if (!field) {
        return {refusedStatus, false};
    }
    return {0, field->settable};
}

int SimulatedAccessibility::setSelectedText(const AccessibilityElement& element, const QString& text) {
    desktop_.runAccessibilityQueryHook();
    SimulatedField* field = desktop_.field(fieldOf(element));
    if (!field || !field->settable) {
        return refusedStatus;
    }
    const SimulatedApplication* app = desktop_.application(field->owner);
    if (!app || app->refusesAccessibilityWrites) {
        return refusedStatus;
    }
    if (app->dropsAccessibilityWrites) {
        return 0;
    }
    const TextRange old = field->selection;
    field->text.replace(old.location, old.length, text);
    field->selection = {old.location + text.size(), 0};
    desktop_.recordInsertion(field->id, text, false);
    return 0;
}

} // namespace parlune::test
