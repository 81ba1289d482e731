#include "core/selection/TextReplacementError.h"

namespace parlune {

std::string_view TextReplacementError::description(Kind kind) {
    switch (kind) {
    case Kind::accessibilityPermissionMissing:
        return "Accessibility permission is required to rewrite selected text in supported applications.";
    case Kind::noSelectedText:
        return "No selected text was found.";
    case Kind::unableToReadFocusedElement:
        return "The focused text field could not be read.";
    case Kind::unableToCreateKeyboardEvent:
        return "Unable to create keyboard events.";
    case Kind::selectionChanged:
        return "The original selection changed before the rewrite completed.";
    case Kind::unsupportedTarget:
        return "The selected text cannot be replaced in this application.";
    case Kind::replacementNotConfirmed:
        return "The application did not confirm that it accepted the replacement.";
    }
    return {};
}

// Descriptions are string literals, so the view's data is NUL-terminated.
const char* TextReplacementError::what() const noexcept {
    return description(kind_).data();
}

} // namespace parlune
