#pragma once

#include <cstdint>
#include <exception>
#include <string>

namespace parlune {

// The one way a hotkey registration fails: the platform refused it with a status code.
class HotKeyError : public std::exception {
public:
    static HotKeyError registrationFailed(std::int32_t status);

    std::int32_t status() const noexcept { return status_; }

    // "Could not register the hotkey. X11 error 10." with the platform's name for the status.
    const char* what() const noexcept override { return description_.c_str(); }

private:
    explicit HotKeyError(std::int32_t status);

    std::int32_t status_;
    std::string description_;
};

} // namespace parlune
