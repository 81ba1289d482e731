#include "core/platform/PlatformTerms.h"

namespace parlune {

namespace {

const PlatformTerms* overrideTerms = nullptr;
const PlatformTerms* selectedTerms = nullptr;

// The statuses of the global-shortcuts portal port, which reuses the X protocol's numbers where
// they mean the same thing.
constexpr HotKeyStatusText portalStatuses[] = {
    {2, "the desktop has no name for that key"},
    {10, "the desktop gave the key to another program"},
    {11, "the request was declined in the desktop's dialog"},
    {12, "the desktop keeps the key chosen in its own shortcut settings, where it can be changed"},
    {17, "the desktop's shortcuts portal failed to bind it"},
    {18, "the desktop ended Parlune's shortcut session"},
};

PlatformTerms waylandTerms() {
    PlatformTerms terms = PlatformTerms::linux();
    terms.hotKeyStatusName = "portal status";
    terms.hotKeyStatusTexts = portalStatuses;
    return terms;
}

} // namespace

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
        .hotKeyTakenStatus = 10, // BadAccess: another client grabbed the key
    };
    return terms;
}

const PlatformTerms& PlatformTerms::waylandLinux() {
    static const PlatformTerms terms = waylandTerms();
    return terms;
}

QString PlatformTerms::hotKeyFailure(std::int32_t status) const {
    for (const HotKeyStatusText& text : hotKeyStatusTexts) {
        if (text.status == status) {
            return QString::fromUtf8(text.reason.data(), static_cast<qsizetype>(text.reason.size()));
        }
    }
    return QStringLiteral("%1 %2")
        .arg(QString::fromUtf8(hotKeyStatusName.data(), static_cast<qsizetype>(hotKeyStatusName.size())))
        .arg(status);
}

QString PlatformTerms::optionPrefix() const {
    return QString::fromUtf8(optionKey.data(), static_cast<qsizetype>(optionKey.size())) + u'+';
}

const PlatformTerms& PlatformTerms::current() {
    if (overrideTerms) {
        return *overrideTerms;
    }
    return selectedTerms ? *selectedTerms : linux();
}

void PlatformTerms::select(const PlatformTerms& terms) {
    selectedTerms = &terms;
}

void PlatformTerms::setCurrentForTesting(const PlatformTerms* terms) {
    overrideTerms = terms;
}

} // namespace parlune
