#pragma once

#include <QString>

#include <cstdint>
#include <span>
#include <string_view>

namespace parlune {

// What one status of the session's shortcut service means, in the user's words.
struct HotKeyStatusText {
    std::int32_t status;
    std::string_view reason; // "the desktop gave the key to another program"
};

// The few words of the product that name platform things, in tables that read naturally on a
// Linux desktop. Everything user-visible that names the computer, its settings or modifier keys
// comes from here.
struct PlatformTerms {
    std::string_view thisComputer;            // "this computer"
    std::string_view thisComputerCapitalized; // "This computer"
    std::string_view systemSettings;          // "your desktop's settings"
    std::string_view optionKey;               // "Alt"
    std::string_view commandKey;              // "Super"
    std::string_view controlKey;              // "Ctrl"
    std::string_view shiftKey;                // "Shift"
    // Where the user grants accessibility control, and the settings application to fall back to.
    std::string_view accessibilitySettingsLocation;
    std::string_view settingsApplicationPath;
    // Where to turn on accessibility control, as one whole sentence.
    std::string_view accessibilityEnableInstruction;
    // "This computer does not support Parlune's on-device rewriting."
    std::string_view deviceNotSupportedDescription;
    // The name of the platform's status code in "Could not register the hotkey. OSStatus -9878.",
    // for a status `hotKeyStatusTexts` does not explain.
    std::string_view hotKeyStatusName;
    // The status meaning another program holds the key: "… is already in use".
    std::int32_t hotKeyTakenStatus = 0;
    // Statuses whose meaning the session's shortcut service fixes; empty where the platform's codes
    // are shown as they are.
    std::span<const HotKeyStatusText> hotKeyStatusTexts;

    // "X11 error 10", or the reason `hotKeyStatusTexts` gives for `status`.
    QString hotKeyFailure(std::int32_t status) const;

    // "Alt+": how every shortcut whose first key is the option key begins.
    QString optionPrefix() const;

    // Linux in an X11 session.
    static const PlatformTerms& linux();
    // Linux in a Wayland session: the desktop's portals bind the shortcut.
    static const PlatformTerms& waylandLinux();
    // The table in effect: the one selected for the session (linux() until then), unless a test
    // chose another.
    static const PlatformTerms& current();
    static void select(const PlatformTerms& terms);
    static void setCurrentForTesting(const PlatformTerms* terms);
};

} // namespace parlune
