#include "core/platform/PlatformTerms.h"

namespace parlune {

namespace {

constexpr PlatformTerms macOSTerms{
    .commandKey = "Command",
    .shiftKey = "Shift",
    .optionKey = "Option",
    .controlKey = "Control",
    .thisMachine = "this Mac",
    .thisMachineAtSentenceStart = "This Mac",
    .systemSettings = "System Settings",
    .accessibilitySettingsLocation = "System Settings → Privacy & Security → Accessibility",
    .accessibilitySettingsLink = "x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility",
    .settingsApplicationPath = "/System/Applications/System Settings.app",
    .hotKeyStatusName = "OSStatus",
};

// Linux desktops share no settings deep link or settings program, so those two stay empty and
// callers name the location in words instead.
constexpr PlatformTerms linuxTerms{
    .commandKey = "Super",
    .shiftKey = "Shift",
    .optionKey = "Alt",
    .controlKey = "Ctrl",
    .thisMachine = "this computer",
    .thisMachineAtSentenceStart = "This computer",
    .systemSettings = "the desktop's settings",
    .accessibilitySettingsLocation = "the desktop's accessibility settings",
    .accessibilitySettingsLink = "",
    .settingsApplicationPath = "",
    .hotKeyStatusName = "X11 error",
};

const PlatformTerms* currentTerms = &linuxTerms;

} // namespace

std::string PlatformTerms::optionPrefix() const {
    std::string prefix(optionKey);
    prefix += '+';
    return prefix;
}

const PlatformTerms& PlatformTerms::macOS() { return macOSTerms; }

const PlatformTerms& PlatformTerms::linuxDesktop() { return linuxTerms; }

const PlatformTerms& PlatformTerms::current() { return *currentTerms; }

void PlatformTerms::setCurrent(const PlatformTerms& terms) { currentTerms = &terms; }

} // namespace parlune
