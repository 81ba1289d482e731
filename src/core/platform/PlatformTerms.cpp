#include "core/platform/PlatformTerms.h"

namespace parlune {

namespace {
const PlatformTerms* overrideTerms = nullptr;
}

const PlatformTerms& PlatformTerms::macOS() {
    static const PlatformTerms terms{
        .thisComputer = "this Mac",
        .thisComputerCapitalized = "This Mac",
        .systemSettings = "System Settings",
        .optionKey = "Option",
        .commandKey = "Command",
        .controlKey = "Control",
        .shiftKey = "Shift",
        .accessibilitySettingsLocation =
            "x-apple.systempreferences:com.apple.preference.security?Privacy_Accessibility",
        .settingsApplicationPath = "/System/Applications/System Settings.app",
        .accessibilityEnableInstruction = "Enable Parlune in System Settings \u2192 Privacy & Security "
                                          "\u2192 Accessibility, then return and run "
                                          "the workflow test.",
        .deviceNotSupportedDescription = "This Mac does not support Parlune's on-device rewriting.",
        .hotKeyStatusName = "OSStatus",
    };
    return terms;
}

const PlatformTerms& PlatformTerms::linux() {
    // On X11 "accessibility control" means synthetic input (XTest) plus the AT-SPI bus, so the
    // settings we point to are the desktop's accessibility settings.
    static const PlatformTerms terms{
        .thisComputer = "this computer",
        .thisComputerCapitalized = "This computer",
        .systemSettings = "your desktop's settings",
        .optionKey = "Alt",
        .commandKey = "Super",
        .controlKey = "Ctrl",
        .shiftKey = "Shift",
        .accessibilitySettingsLocation = "settings://accessibility",
        .settingsApplicationPath = "/usr/bin/gnome-control-center",
        .accessibilityEnableInstruction = "Turn on assistive technologies in your desktop's accessibility "
                                          "settings, then return and run the "
                                          "workflow test.",
        .deviceNotSupportedDescription = "This computer does not support Parlune's on-device rewriting.",
        // The X11 port reports the X protocol error of a refused key grab.
        .hotKeyStatusName = "X11 error",
    };
    return terms;
}

QString PlatformTerms::optionPrefix() const {
    return QString::fromUtf8(optionKey.data(), static_cast<qsizetype>(optionKey.size())) + u'+';
}

const PlatformTerms& PlatformTerms::current() {
    return overrideTerms ? *overrideTerms : linux();
}

void PlatformTerms::setCurrentForTesting(const PlatformTerms* terms) {
    overrideTerms = terms;
}

} // namespace parlune
