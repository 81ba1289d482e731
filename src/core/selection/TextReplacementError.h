#pragma once

#include <exception>
#include <string_view>

namespace parlune {

// Every failure of selection capture, validation and replacement.
class TextReplacementError : public std::exception {
public:
    // In their stable order.
    enum class Kind {
        accessibilityPermissionMissing,
        noSelectedText,
        unableToReadFocusedElement,
        unableToCreateKeyboardEvent,
        selectionChanged,
        unsupportedTarget,
        replacementNotConfirmed,
    };

    explicit TextReplacementError(Kind kind) : kind_(kind) {}

    Kind kind() const { return kind_; }
    const char* what() const noexcept override;
    static std::string_view description(Kind kind);

    friend bool operator==(const TextReplacementError& a, const TextReplacementError& b) {
        return a.kind_ == b.kind_;
    }

private:
    Kind kind_;
};

} // namespace parlune
