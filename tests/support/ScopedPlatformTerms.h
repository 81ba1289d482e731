#pragma once

#include "core/platform/PlatformTerms.h"

namespace parlune::testing {

// Uses the given platform words for the life of the object, then restores the previous ones.
class ScopedPlatformTerms {
public:
    explicit ScopedPlatformTerms(const PlatformTerms& terms) : previous_(&PlatformTerms::current()) {
        PlatformTerms::setCurrentForTesting(&terms);
    }
    ~ScopedPlatformTerms() { PlatformTerms::setCurrentForTesting(previous_); }
    ScopedPlatformTerms(const ScopedPlatformTerms&) = delete;
    ScopedPlatformTerms& operator=(const ScopedPlatformTerms&) = delete;

private:
    const PlatformTerms* previous_;
};

} // namespace parlune::testing
