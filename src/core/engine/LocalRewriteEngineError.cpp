#include "core/engine/LocalRewriteEngineError.h"

#include "core/platform/PlatformTerms.h"

namespace parlune {

std::string_view LocalRewriteEngineError::description(Kind kind) {
    switch (kind) {
    case Kind::deviceNotEligible:
        return PlatformTerms::current().deviceNotSupportedDescription;
    case Kind::appleIntelligenceNotEnabled:
        return "On-device intelligence must be enabled to use Parlune.";
    case Kind::modelNotReady:
        return "The on-device model is not ready yet.";
    case Kind::unsupportedLocale:
        return "The current language or locale is not supported by the on-device model.";
    case Kind::selectionTooLong:
        return "The selection is too long for the on-device model.";
    case Kind::preferencesTooLong:
        return "The writing preferences are too long for the on-device model.";
    case Kind::safetyRestricted:
        return "The on-device model could not rewrite that selection.";
    case Kind::modelBusy:
        return "The on-device model is temporarily busy.";
    case Kind::generationFailed:
        return "The on-device model could not complete the rewrite.";
    case Kind::emptyRewrite:
        return "The on-device model returned an empty rewrite.";
    }
    return {};
}

const char* LocalRewriteEngineError::what() const noexcept {
    return description(kind_).data();
}

} // namespace parlune
