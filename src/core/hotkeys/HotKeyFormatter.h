#pragma once

#include "core/hotkeys/HotKeyShortcut.h"
#include "core/hotkeys/KeyEvent.h"

#include <QString>

#include <cstdint>
#include <optional>

namespace parlune {

// Turns key presses into shortcuts and shortcuts into the names shown to the user. Names use the
// current platform's modifier words.
class HotKeyFormatter {
public:
    HotKeyFormatter() = delete;

    // Command, Option, Control and Shift flags to their Carbon masks; other flags are ignored.
    static std::uint32_t carbonModifiers(std::uint32_t modifierFlags);

    // The held modifiers in the fixed order Control, Option, Shift, Command, joined by "+";
    // empty when none is held.
    static QString modifierDisplayName(std::uint32_t modifierFlags);

    // Return, Tab, Space and Escape by name; any other key by its characters, upper-cased;
    // empty for a key without characters.
    static QString keyDisplayName(const KeyEvent& event);

    // A full modifier+key shortcut, absent without a modifier or without a key name.
    static std::optional<HotKeyShortcut> shortcut(const KeyEvent& event);

    // Option plus the named key, whatever else was held; absent when the trimmed name is empty.
    static std::optional<HotKeyShortcut> optionShortcut(std::uint32_t keyCode, const QString& keyName);
    static std::optional<HotKeyShortcut> optionShortcut(const KeyEvent& event);

    // The second key shown in the shortcut recorder for a stored shortcut: the rest of an Option
    // shortcut's name, and the default shortcut's key for any other shortcut.
    static QString recorderKeyName(const HotKeyShortcut& shortcut);
};

} // namespace parlune
