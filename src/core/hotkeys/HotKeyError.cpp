#include "core/hotkeys/HotKeyError.h"

#include "core/platform/PlatformTerms.h"

namespace parlune {

HotKeyError::HotKeyError(Case errorCase, std::int32_t status) : case_(errorCase), status_(status) {
    description_ = "Could not register the hotkey. ";
    description_ += PlatformTerms::current().hotKeyStatusName;
    description_ += ' ';
    description_ += std::to_string(status);
    description_ += '.';
}

HotKeyError HotKeyError::registrationFailed(std::int32_t status) {
    return HotKeyError(Case::registrationFailed, status);
}

} // namespace parlune
