#include "core/hotkeys/HotKeyFormatter.h"

#include "core/platform/PlatformTerms.h"

#include <QString>

namespace parlune {

std::uint32_t HotKeyFormatter::carbonModifiers(std::uint32_t modifierFlags) {
    std::uint32_t mask = 0;
    if (modifierFlags & modifier_flag::command) {
        mask |= carbon_modifier::command;
    }
    if (modifierFlags & modifier_flag::option) {
        mask |= carbon_modifier::option;
    }
    if (modifierFlags & modifier_flag::control) {
        mask |= carbon_modifier::control;
    }
    if (modifierFlags & modifier_flag::shift) {
        mask |= carbon_modifier::shift;
    }
    return mask;
}

std::string HotKeyFormatter::modifierDisplayName(std::uint32_t modifierFlags) {
    const PlatformTerms& terms = PlatformTerms::current();
    const std::pair<std::uint32_t, std::string_view> ordered[] = {
        {modifier_flag::control, terms.controlKey},
        {modifier_flag::option, terms.optionKey},
        {modifier_flag::shift, terms.shiftKey},
        {modifier_flag::command, terms.commandKey},
    };
    std::string name;
    for (const auto& [flag, word] : ordered) {
        if (modifierFlags & flag) {
            if (!name.empty()) {
                name += '+';
            }
            name += word;
        }
    }
    return name;
}

std::string HotKeyFormatter::keyDisplayName(const KeyEvent& event) {
    switch (event.keyCode) {
    case key_code::returnKey:
        return "Return";
    case key_code::tab:
        return "Tab";
    case key_code::space:
        return "Space";
    case key_code::escape:
        return "Escape";
    default:
        break;
    }
    return QString::fromStdString(event.charactersIgnoringModifiers).toUpper().toStdString();
}

std::optional<HotKeyShortcut> HotKeyFormatter::shortcut(const KeyEvent& event) {
    const std::uint32_t mask = carbonModifiers(event.modifierFlags);
    if (mask == 0) {
        return std::nullopt;
    }
    const std::string keyName = keyDisplayName(event);
    if (keyName.empty()) {
        return std::nullopt;
    }
    return HotKeyShortcut{event.keyCode, mask, modifierDisplayName(event.modifierFlags) + "+" + keyName};
}

std::optional<HotKeyShortcut> HotKeyFormatter::optionShortcut(std::uint32_t keyCode, std::string_view keyName) {
    const QString trimmed =
        QString::fromUtf8(keyName.data(), static_cast<qsizetype>(keyName.size())).trimmed();
    if (trimmed.isEmpty()) {
        return std::nullopt;
    }
    return HotKeyShortcut{keyCode, carbon_modifier::option,
                          PlatformTerms::current().optionPrefix() + trimmed.toStdString()};
}

std::optional<HotKeyShortcut> HotKeyFormatter::optionShortcut(const KeyEvent& event) {
    return optionShortcut(event.keyCode, keyDisplayName(event));
}

std::string HotKeyFormatter::recorderKeyName(const HotKeyShortcut& shortcut) {
    const std::string prefix = PlatformTerms::current().optionPrefix();
    const std::string& name = shortcut.displayName.starts_with(prefix)
                                  ? shortcut.displayName
                                  : HotKeyShortcut::defaultShortcut().displayName;
    return name.substr(prefix.size());
}

} // namespace parlune
