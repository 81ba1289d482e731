#include "core/async/Clock.h"

#include <algorithm>

namespace parlune {

double SystemClock::uptimeSeconds() const {
    // steady_clock is CLOCK_MONOTONIC on Linux: time since boot, blind to clock changes.
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

WallTime SystemClock::now() const {
    return std::chrono::system_clock::now();
}

const SystemClock& SystemClock::shared() {
    static const SystemClock clock;
    return clock;
}

long long elapsedMilliseconds(WallTime start, WallTime end) {
    const auto millis = std::chrono::duration_cast<std::chrono::milliseconds>(end - start).count();
    return std::max<long long>(0, millis);
}

} // namespace parlune
