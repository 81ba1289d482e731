#pragma once

#include <QString>

#include <string_view>

namespace parlune {

// The few words of the product that name platform things. The macOS table holds the original
// texts; the Linux table reads naturally on a Linux desktop. Everything user-visible that names the
// computer, its settings or modifier keys comes from here.
struct PlatformTerms {
    std::string_view thisComputer;            // "this Mac"
    std::string_view thisComputerCapitalized; // "This Mac"
    std::string_view systemSettings;          // "System Settings"
    std::string_view optionKey;               // "Option"
    std::string_view commandKey;              // "Command"
    std::string_view controlKey;              // "Control"
    std::string_view shiftKey;                // "Shift"
    // Where the user grants accessibility control, and the settings application to fall back to.
    std::string_view accessibilitySettingsLocation;
    std::string_view settingsApplicationPath;
    // "Enable Parlune in System Settings → Privacy & Security → Accessibility, then return and run
    // the workflow test." — the path differs per platform, so the sentence is whole here.
    std::string_view accessibilityEnableInstruction;
    // "This Mac does not support Parlune's on-device rewriting."
    std::string_view deviceNotSupportedDescription;
    // The name of the platform's status code in "Could not register the hotkey. OSStatus -9878."
    std::string_view hotKeyStatusName;

    // "Option+" or its equivalent: how every shortcut whose first key is Option begins.
    QString optionPrefix() const;

    static const PlatformTerms& macOS();
    static const PlatformTerms& linux();
    // The table in effect; Linux unless a test chose another.
    static const PlatformTerms& current();
    static void setCurrentForTesting(const PlatformTerms* terms);
};

} // namespace parlune
