#pragma once

#include <QString>

#include <optional>
#include <set>

namespace parlune {

// The applications whose text fields may be written directly through accessibility. Every other
// application gets its replacement pasted, even when its field claims a settable selection.
class AppCompatibilityRegistry {
public:
    AppCompatibilityRegistry() = default;
    explicit AppCompatibilityRegistry(std::set<QString> directAccessibilityBundleIdentifiers);

    // The shipped registry: empty, so every replacement is pasted. Direct writing is opt-in per
    // application, made by building a registry with identifiers.
    static const AppCompatibilityRegistry& defaultRegistry();

    // Exact, case-sensitive match; an absent identifier is never permitted.
    bool permitsDirectReplacement(const std::optional<QString>& bundleIdentifier) const;

    const std::set<QString>& directAccessibilityBundleIdentifiers() const { return identifiers_; }

    friend bool operator==(const AppCompatibilityRegistry&, const AppCompatibilityRegistry&) = default;

private:
    std::set<QString> identifiers_;
};

} // namespace parlune
