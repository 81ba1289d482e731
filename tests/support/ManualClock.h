#pragma once

#include "core/async/Clock.h"

#include <chrono>

namespace parlune::testing {

// A clock that moves only when the test moves it; both of its readings advance together.
class ManualClock final : public Clock {
public:
    double uptimeSeconds() const override { return uptime; }
    WallTime now() const override { return time; }
    void advance(std::chrono::microseconds step) {
        time += step;
        uptime += std::chrono::duration<double>(step).count();
    }
    WallTime time{std::chrono::seconds(1'700'000'000)};
    double uptime = 500.0;
};

} // namespace parlune::testing
