#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace parlune {

// The one way a hotkey registration fails: the platform refused it with a status code.
class HotKeyError : public std::exception {
public:
    enum class Case { registrationFailed };

    static HotKeyError registrationFailed(std::int32_t status);

    Case errorCase() const noexcept { return case_; }
    std::int32_t status() const noexcept { return status_; }

    // "Could not register the hotkey. X11 error 10." with the platform's name for the status.
    const char* what() const noexcept override { return description_.c_str(); }

    friend bool operator==(const HotKeyError& a, const HotKeyError& b) noexcept {
        return a.case_ == b.case_ && a.status_ == b.status_;
    }

private:
    HotKeyError(Case errorCase, std::int32_t status);

    Case case_;
    std::int32_t status_;
    std::string description_;
};

} // namespace parlune
