#pragma once

namespace parlune {

// How far first-run setup has got.
struct OnboardingProgress {
    bool accessibilityReady = false;
    bool hotKeyReady = false;
    bool modelReady = false;
    bool workflowTestReady = false;

    bool isComplete() const { return accessibilityReady && hotKeyReady && modelReady && workflowTestReady; }

    friend bool operator==(const OnboardingProgress&, const OnboardingProgress&) = default;
};

} // namespace parlune
