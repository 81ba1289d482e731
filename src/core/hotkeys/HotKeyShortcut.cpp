#include "core/hotkeys/HotKeyShortcut.h"

#include "core/platform/PlatformTerms.h"

namespace parlune {

HotKeyShortcut HotKeyShortcut::defaultShortcut() {
    return HotKeyShortcut{key_code::space, carbon_modifier::option,
                          PlatformTerms::current().optionPrefix() + "Space"};
}

} // namespace parlune
