#include "core/selection/AppCompatibilityRegistry.h"

#include "core/platform/UserDefaults.h"

#include <array>

namespace parlune {

namespace {

constexpr KeyChord controlC{KeyboardEvents::keyCodeC, KeyChord::command};
constexpr KeyChord controlV{KeyboardEvents::keyCodeV, KeyChord::command};
constexpr KeyChord controlShiftC{KeyboardEvents::keyCodeC, KeyChord::command | KeyChord::shift};

struct Terminal {
    const char* className; // WM_CLASS class name, lower case
    bool copiesWithControlShiftC;
};

// Terminals copy with Control+Shift+C where they have it; xterm and its kin only ever put the
// selection in PRIMARY.
constexpr std::array terminals{
    Terminal{"xterm", false},
    Terminal{"uxterm", false},
    Terminal{"urxvt", false},
    Terminal{"rxvt", false},
    Terminal{"st", false},
    Terminal{"st-256color", false},
    Terminal{"gnome-terminal", true},
    Terminal{"gnome-terminal-server", true},
    Terminal{"kgx", true},
    Terminal{"org.gnome.console", true},
    Terminal{"org.gnome.ptyxis", true},
    Terminal{"mate-terminal", true},
    Terminal{"xfce4-terminal", true},
    Terminal{"lxterminal", true},
    Terminal{"terminator", true},
    Terminal{"tilix", true},
    Terminal{"com.gexperts.tilix", true},
    Terminal{"sakura", true},
    Terminal{"guake", true},
    Terminal{"tilda", true},
    Terminal{"roxterm", true},
    Terminal{"terminology", true},
    Terminal{"konsole", true},
    Terminal{"yakuake", true},
    Terminal{"qterminal", true},
    Terminal{"alacritty", true},
    Terminal{"kitty", true},
    Terminal{"org.wezfurlong.wezterm", true},
    Terminal{"foot", true},
    Terminal{"footclient", true},
};

} // namespace

AppCompatibilityRegistry::AppCompatibilityRegistry(std::set<QString> directAccessibilityBundleIdentifiers,
                                                   QStringList userTerminals)
    : identifiers_(std::move(directAccessibilityBundleIdentifiers)),
      userTerminals_(std::move(userTerminals)) {}

const AppCompatibilityRegistry& AppCompatibilityRegistry::defaultRegistry() {
    static const AppCompatibilityRegistry registry;
    return registry;
}

QStringList AppCompatibilityRegistry::terminalsFromSettings(const UserDefaults& defaults) {
    const std::optional<QString> list = defaults.string(QString::fromLatin1(terminalApplicationsKey));
    if (!list) {
        return {};
    }
    QStringList names = list->split(QLatin1Char(','), Qt::SkipEmptyParts);
    for (QString& name : names) {
        name = name.trimmed();
    }
    names.removeAll(QString());
    return names;
}

bool AppCompatibilityRegistry::permitsDirectReplacement(
    const std::optional<QString>& bundleIdentifier) const {
    return bundleIdentifier.has_value() && identifiers_.count(*bundleIdentifier) > 0;
}

AppCompatibilityRegistry::ApplicationChords
AppCompatibilityRegistry::chordsFor(const std::optional<QString>& bundleIdentifier) const {
    if (!bundleIdentifier) {
        return {controlC, controlV};
    }
    const QString name = bundleIdentifier->toLower();
    for (const Terminal& terminal : terminals) {
        if (name == QLatin1String(terminal.className)) {
            return {terminal.copiesWithControlShiftC ? std::optional<KeyChord>(controlShiftC) : std::nullopt,
                    std::nullopt};
        }
    }
    // The user names terminals we do not know; their keys are unknown too, so none is sent.
    if (userTerminals_.contains(*bundleIdentifier, Qt::CaseInsensitive)) {
        return {std::nullopt, std::nullopt};
    }
    return {controlC, controlV};
}

} // namespace parlune
