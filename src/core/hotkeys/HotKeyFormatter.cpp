#include "core/hotkeys/HotKeyFormatter.h"

#include "core/platform/PlatformTerms.h"

#include <string_view>
#include <utility>

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

QString HotKeyFormatter::modifierDisplayName(std::uint32_t modifierFlags) {
    const PlatformTerms& terms = PlatformTerms::current();
    const std::pair<std::uint32_t, std::string_view> ordered[] = {
        {modifier_flag::control, terms.controlKey},
        {modifier_flag::option, terms.optionKey},
        {modifier_flag::shift, terms.shiftKey},
        {modifier_flag::command, terms.commandKey},
    };
    QString name;
    for (const auto& [flag, word] : ordered) {
        if (modifierFlags & flag) {
            if (!name.isEmpty()) {
                name += u'+';
            }
            name += QString::fromUtf8(word.data(), static_cast<qsizetype>(word.size()));
        }
    }
    return name;
}

QString HotKeyFormatter::keyDisplayName(const KeyEvent& event) {
    switch (event.keyCode) {
    case key_code::returnKey:
        return QStringLiteral("Return");
    case key_code::tab:
        return QStringLiteral("Tab");
    case key_code::space:
        return QStringLiteral("Space");
    case key_code::escape:
        return QStringLiteral("Escape");
    default:
        return event.charactersIgnoringModifiers.toUpper();
    }
}

std::optional<HotKeyShortcut> HotKeyFormatter::shortcut(const KeyEvent& event) {
    const std::uint32_t mask = carbonModifiers(event.modifierFlags);
    if (mask == 0) {
        return std::nullopt;
    }
    const QString keyName = keyDisplayName(event);
    if (keyName.isEmpty()) {
        return std::nullopt;
    }
    return HotKeyShortcut{event.keyCode, mask, modifierDisplayName(event.modifierFlags) + u'+' + keyName};
}

std::optional<HotKeyShortcut> HotKeyFormatter::optionShortcut(std::uint32_t keyCode, const QString& keyName) {
    const QString trimmed = keyName.trimmed();
    if (trimmed.isEmpty()) {
        return std::nullopt;
    }
    return HotKeyShortcut{keyCode, carbon_modifier::option,
                          PlatformTerms::current().optionPrefix() + trimmed};
}

std::optional<HotKeyShortcut> HotKeyFormatter::optionShortcut(const KeyEvent& event) {
    return optionShortcut(event.keyCode, keyDisplayName(event));
}

QString HotKeyFormatter::recorderKeyName(const HotKeyShortcut& shortcut) {
    const QString prefix = PlatformTerms::current().optionPrefix();
    const QString name = shortcut.displayName.startsWith(prefix)
                             ? shortcut.displayName
                             : HotKeyShortcut::defaultShortcut().displayName;
    return name.mid(prefix.size());
}

} // namespace parlune
