#pragma once

#include <QString>

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
        preferencesTooLong,
        safetyRestricted,
        modelBusy,
        generationFailed,
        emptyRewrite,
    };

    explicit LocalRewriteEngineError(Kind kind, QString detail = {})
        : kind_(kind), detail_(std::move(detail)) {}

    Kind kind() const { return kind_; }
    // What exactly is wrong, beyond the kind's sentence: e.g. which model file cannot be used
    // and why. Printable; may be empty.
    const QString& detail() const { return detail_; }
    const char* what() const noexcept override;
    static std::string_view description(Kind kind);

    friend bool operator==(const LocalRewriteEngineError& a, const LocalRewriteEngineError& b) {
        return a.kind_ == b.kind_;
    }

private:
    Kind kind_;
    QString detail_;
};

} // namespace parlune
