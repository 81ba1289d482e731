#pragma once

#include <exception>
#include <string_view>

namespace parlune {

// Every failure of the local rewrite engine other than cancellation.
class LocalRewriteEngineError : public std::exception {
public:
    enum class Kind {
        deviceNotEligible,
        appleIntelligenceNotEnabled,
        modelNotReady,
        unsupportedLocale,
        selectionTooLong,
        safetyRestricted,
        modelBusy,
        generationFailed,
        emptyRewrite,
    };

    explicit LocalRewriteEngineError(Kind kind) : kind_(kind) {}

    Kind kind() const { return kind_; }
    const char* what() const noexcept override;
    static std::string_view description(Kind kind);

    friend bool operator==(const LocalRewriteEngineError& a, const LocalRewriteEngineError& b) {
        return a.kind_ == b.kind_;
    }

private:
    Kind kind_;
};

} // namespace parlune
