#include "core/hotkeys/HotKeyError.h"

#include "core/platform/PlatformTerms.h"

namespace parlune {

HotKeyError::HotKeyError(std::int32_t status) : status_(status) {
    const QString failure = PlatformTerms::current().hotKeyFailure(status);
    // A reason is a clause ("the desktop …"), a status name a label ("X11 error 10").
    description_ = "Could not register the hotkey";
    description_ += PlatformTerms::current().hotKeyStatusTexts.empty() ? ". " : ": ";
    description_ += failure.toStdString();
    description_ += '.';
}

HotKeyError HotKeyError::registrationFailed(std::int32_t status) {
    return HotKeyError(status);
}

} // namespace parlune
