#pragma once

#include "core/platform/KeyboardEvents.h"

#include <QString>
#include <QStringList>

#include <optional>
#include <set>

namespace parlune {

class UserDefaults;

// Per application: whether its text fields may be written directly through accessibility (every
// other application gets its replacement pasted, even when its field claims a settable selection),
// and which keys copy and paste there. Terminals never get Control+C or Control+V from us: one
// would interrupt the running program and discard a typed line, the other types a literal ^V.
class AppCompatibilityRegistry {
public:
    // How the selection is copied and the replacement pasted in one application.
    struct ApplicationChords {
        // nullopt: no key is sent; the selection is read from the primary selection. A terminal's
        // chord is used only where the desktop has no primary selection.
        std::optional<KeyChord> copy;
        // nullopt: pasting cannot replace the selection safely (in a terminal the text would be
        // typed into whatever runs there), so the replacement is refused and nothing changes.
        std::optional<KeyChord> paste;

        friend bool operator==(const ApplicationChords&, const ApplicationChords&) = default;
    };

    // Settings key of the user's own list of terminals: WM_CLASS names separated by commas.
    static constexpr const char* terminalApplicationsKey = "terminalApplications";

    AppCompatibilityRegistry() = default;
    explicit AppCompatibilityRegistry(std::set<QString> directAccessibilityBundleIdentifiers,
                                      QStringList userTerminals = {});

    // The shipped registry: empty, so every replacement is pasted. Direct writing is opt-in per
    // application, made by building a registry with identifiers.
    static const AppCompatibilityRegistry& defaultRegistry();
    // The user's terminals as the settings list them (empty entries and spaces dropped).
    static QStringList terminalsFromSettings(const UserDefaults& defaults);

    // Exact, case-sensitive match; an absent identifier is never permitted.
    bool permitsDirectReplacement(const std::optional<QString>& bundleIdentifier) const;
    // Known terminals (matched without regard to case, as WM_CLASS spellings vary) and the user's
    // own list have terminal chords; everything else copies with Control+C and pastes with
    // Control+V.
    ApplicationChords chordsFor(const std::optional<QString>& bundleIdentifier) const;

    const std::set<QString>& directAccessibilityBundleIdentifiers() const { return identifiers_; }

    friend bool operator==(const AppCompatibilityRegistry&, const AppCompatibilityRegistry&) = default;

private:
    std::set<QString> identifiers_;
    QStringList userTerminals_;
};

} // namespace parlune
