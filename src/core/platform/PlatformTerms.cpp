#include "core/platform/PlatformTerms.h"

namespace parlune {

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
    return linux();
}

} // namespace parlune
