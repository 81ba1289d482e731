#pragma once

namespace parlune {

// Whether the on-device model can be used now, in this order of declaration.
enum class LocalModelAvailability {
    available,
    deviceNotEligible,
    appleIntelligenceNotEnabled,
    modelNotReady,
    unsupportedLocale,
};

} // namespace parlune
