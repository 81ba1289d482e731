#include "core/hotkeys/HotKeyPreset.h"

#include "core/platform/PlatformTerms.h"

#include <string_view>

namespace parlune {

namespace {

QString word(std::string_view text) {
    return QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
}

} // namespace

HotKeyShortcut HotKeyPreset::shortcut() const {
    return HotKeyShortcut{keyCode, carbonModifiers, name};
}

std::vector<HotKeyPreset> HotKeyPreset::all() {
    const PlatformTerms& terms = PlatformTerms::current();
    return {
        HotKeyPreset{defaultID.toString(), terms.optionPrefix() + QStringLiteral("Space"), key_code::space,
                     carbon_modifier::option},
        HotKeyPreset{QStringLiteral("command-shift-h"),
                     word(terms.commandKey) + u'+' + word(terms.shiftKey) + QStringLiteral("+H"), key_code::h,
                     carbon_modifier::command | carbon_modifier::shift},
        HotKeyPreset{QStringLiteral("control-option-r"),
                     word(terms.controlKey) + u'+' + word(terms.optionKey) + QStringLiteral("+R"),
                     key_code::r, carbon_modifier::control | carbon_modifier::option},
    };
}

HotKeyPreset HotKeyPreset::preset(QStringView id) {
    std::vector<HotKeyPreset> presets = all();
    for (HotKeyPreset& candidate : presets) {
        if (candidate.id == id) {
            return std::move(candidate);
        }
    }
    return std::move(presets.front());
}

} // namespace parlune
