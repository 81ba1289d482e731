#pragma once

#include <chrono>

namespace parlune {

using WallTime = std::chrono::system_clock::time_point;

// Time as the pipeline reads it; injected so that tests control it.
class Clock {
public:
    virtual ~Clock() = default;
    // Seconds on a monotonic clock that never follows wall-clock changes.
    virtual double uptimeSeconds() const = 0;
    // The wall-clock time, from which elapsed milliseconds are reported.
    virtual WallTime now() const = 0;
};

class SystemClock final : public Clock {
public:
    double uptimeSeconds() const override;
    WallTime now() const override;

    // The one process-wide system clock.
    static const SystemClock& shared();
};

// Whole milliseconds from `start` to `end`, truncated and never negative.
long long elapsedMilliseconds(WallTime start, WallTime end);

} // namespace parlune
