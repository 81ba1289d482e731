#include "core/selection/AppCompatibilityRegistry.h"

namespace parlune {

AppCompatibilityRegistry::AppCompatibilityRegistry(std::set<QString> directAccessibilityBundleIdentifiers)
    : identifiers_(std::move(directAccessibilityBundleIdentifiers)) {}

const AppCompatibilityRegistry& AppCompatibilityRegistry::defaultRegistry() {
    static const AppCompatibilityRegistry registry;
    return registry;
}

bool AppCompatibilityRegistry::permitsDirectReplacement(
    const std::optional<QString>& bundleIdentifier) const {
    return bundleIdentifier.has_value() && identifiers_.count(*bundleIdentifier) > 0;
}

} // namespace parlune
