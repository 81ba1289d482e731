#include "core/async/Sleep.h"

#include "core/async/CancellationError.h"
#include "core/async/Continuation.h"

#include <QTimer>

#include <algorithm>
#include <cmath>

namespace parlune {

QCoro::Task<void> sleepFor(std::chrono::nanoseconds duration, std::stop_token token) {
    throwIfCancelled(token);
    // Round up so that a sleep never ends before its duration has passed.
    const auto nanos = std::max<std::chrono::nanoseconds::rep>(0, duration.count());
    const auto millis = static_cast<int>(std::min<std::chrono::nanoseconds::rep>(
        (nanos + 999'999) / 1'000'000, std::numeric_limits<int>::max()));

    Continuation<void> elapsed;
    QTimer timer;
    timer.setSingleShot(true);
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, [elapsed]() mutable { elapsed.resume(); });
    timer.start(millis);
    co_await elapsed.wait(token);
}

QCoro::Task<void> sleepForSeconds(double seconds, std::stop_token token) {
    const double clamped = std::isfinite(seconds) ? std::clamp(seconds, 0.0, 1.0e6) : 0.0;
    co_await sleepFor(std::chrono::nanoseconds(static_cast<std::int64_t>(clamped * 1e9)), std::move(token));
}

void throwIfCancelled(const std::stop_token& token) {
    if (token.stop_requested()) {
        throw CancellationError{};
    }
}

} // namespace parlune
