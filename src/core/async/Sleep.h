#pragma once

#include <QCoro/QCoroTask>

#include <chrono>
#include <stop_token>

namespace parlune {

// Suspends the calling coroutine for `duration`, measured on the monotonic clock, without blocking
// the event loop. Throws CancellationError as soon as `token` is stopped (or at once if it already is).
QCoro::Task<void> sleepFor(std::chrono::nanoseconds duration, std::stop_token token);

// Sleep for a number of seconds, the unit every interval of the pipeline is written in.
QCoro::Task<void> sleepForSeconds(double seconds, std::stop_token token);

// Throws CancellationError when the token has been stopped; a cheap check between steps.
void throwIfCancelled(const std::stop_token& token);

} // namespace parlune
