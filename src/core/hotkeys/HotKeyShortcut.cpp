#include "core/hotkeys/HotKeyShortcut.h"

#include "core/platform/PlatformTerms.h"

#include <ostream>

namespace parlune {

HotKeyShortcut HotKeyShortcut::defaultShortcut() {
    return HotKeyShortcut{key_code::space, carbon_modifier::option,
                          PlatformTerms::current().optionPrefix() + QStringLiteral("Space")};
}

void PrintTo(const HotKeyShortcut& shortcut, std::ostream* out) {
    *out << shortcut.displayName.toStdString() << " (" << shortcut.keyCode << "/" << shortcut.carbonModifiers
         << ")";
}

} // namespace parlune
