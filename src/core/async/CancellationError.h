#pragma once

#include <exception>

namespace parlune {

// Thrown out of a cancellable wait when its task was cancelled. Never shown to the user.
class CancellationError : public std::exception {
public:
    const char* what() const noexcept override { return "The task was cancelled."; }
};

// True when the exception is a cancellation; every other error is a real failure.
bool isCancellation(const std::exception_ptr& error);

} // namespace parlune
