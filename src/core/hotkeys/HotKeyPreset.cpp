#include "core/hotkeys/HotKeyPreset.h"

#include "core/platform/PlatformTerms.h"

namespace parlune {

HotKeyShortcut HotKeyPreset::shortcut() const { return HotKeyShortcut{keyCode, carbonModifiers, name}; }

std::vector<HotKeyPreset> HotKeyPreset::all() {
    const PlatformTerms& terms = PlatformTerms::current();
    const auto joined = [](std::string_view first, std::string_view second, std::string_view key) {
        std::string name(first);
        name.append("+").append(second).append("+").append(key);
        return name;
    };
    return {
        HotKeyPreset{std::string(defaultID), terms.optionPrefix() + "Space", key_code::space,
                     carbon_modifier::option},
        HotKeyPreset{"command-shift-h", joined(terms.commandKey, terms.shiftKey, "H"), key_code::h,
                     carbon_modifier::command | carbon_modifier::shift},
        HotKeyPreset{"control-option-r", joined(terms.controlKey, terms.optionKey, "R"), key_code::r,
                     carbon_modifier::control | carbon_modifier::option},
    };
}

HotKeyPreset HotKeyPreset::preset(std::string_view id) {
    std::vector<HotKeyPreset> presets = all();
    for (HotKeyPreset& candidate : presets) {
        if (candidate.id == id) {
            return std::move(candidate);
        }
    }
    return std::move(presets.front());
}

} // namespace parlune
