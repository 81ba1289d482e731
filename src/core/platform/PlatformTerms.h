#pragma once

#include <QString>

#include <string_view>

namespace parlune {

// The few words of the product that name platform things, in one table that reads naturally on a
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
    // The name of the status code in "Could not register the hotkey. X11 error 10."
    std::string_view hotKeyStatusName;

    // "Alt+": how every shortcut whose first key is the option key begins.
    QString optionPrefix() const;

    static const PlatformTerms& linux();
    // The table in effect.
    static const PlatformTerms& current();
};

} // namespace parlune
