#pragma once

#include <QString>

#include <exception>

namespace parlune {

// The one sentence shown to the user for an error that reaches them.
class UserFacingErrorMessage {
public:
    UserFacingErrorMessage() = delete;

    // Selection and engine errors get their own sentences; any other error (a cancellation, a
    // hotkey error, anything unknown) its own description. Never throws.
    static QString message(const std::exception& error);
    static QString message(const std::exception_ptr& error);

    // What exactly went wrong beyond the sentence (e.g. which model file cannot be used and
    // why), for the command line, settings and diagnostics; empty when the error carries none.
    static QString detail(const std::exception_ptr& error);
};

} // namespace parlune
