#pragma once

#include <string>
#include <string_view>

namespace parlune {

// The words of the product's texts that name things of one desktop platform: modifier keys,
// the machine, the settings application and where accessibility is enabled. Every text that
// needs one of them takes it from here, so a build shows one consistent vocabulary.
struct PlatformTerms {
    // Modifier key names, as they appear in shortcut display names ("Option+Space").
    std::string_view commandKey;
    std::string_view shiftKey;
    std::string_view optionKey;
    std::string_view controlKey;

    // The user's machine inside a sentence and at its start ("this Mac" / "This Mac").
    std::string_view thisMachine;
    std::string_view thisMachineAtSentenceStart;

    // The system's settings application, as named inside a sentence.
    std::string_view systemSettings;
    // Where the user enables accessibility for the program, as named inside a sentence.
    std::string_view accessibilitySettingsLocation;
    // A link that opens the accessibility settings, and the settings application to open when
    // the link does not work; empty where the desktop offers neither.
    std::string_view accessibilitySettingsLink;
    std::string_view settingsApplicationPath;

    // The name of the platform's status code in a failed hotkey registration.
    std::string_view hotKeyStatusName;

    // "Option+" or its equivalent: the prefix of every shortcut whose first key is Option.
    std::string optionPrefix() const;

    static const PlatformTerms& macOS();
    static const PlatformTerms& linuxDesktop();

    // The words this process uses: the Linux desktop's unless a test chose others.
    static const PlatformTerms& current();
    // Main thread only; the object must outlive its use (the two instances above do).
    static void setCurrent(const PlatformTerms& terms);
};

} // namespace parlune
