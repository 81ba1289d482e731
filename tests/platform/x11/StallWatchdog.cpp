#include "StallWatchdog.h"

#include <algorithm>

namespace parlune::test {

namespace {
StallWatchdog* instance = nullptr;
}

StallWatchdog::StallWatchdog() {
    instance = this;
    clock_.start();
    timer_.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer_, &QTimer::timeout, [this] { tick(); });
    timer_.start(intervalMs);
}

StallWatchdog::~StallWatchdog() {
    instance = nullptr;
}

StallWatchdog* StallWatchdog::current() {
    return instance;
}

void StallWatchdog::tick() {
    const qint64 now = clock_.elapsed();
    if (armed_ > 0 && lastTick_ >= 0) {
        longest_ = std::max(longest_, now - lastTick_ - intervalMs);
    }
    lastTick_ = armed_ > 0 ? now : -1;
}

StallWatchdog::Armed::Armed() {
    if (instance) {
        ++instance->armed_;
        instance->lastTick_ = instance->clock_.elapsed();
    }
}

StallWatchdog::Armed::~Armed() {
    if (instance) {
        // The stretch up to now counts as well: a stall that ends the operation is still a stall.
        instance->tick();
        --instance->armed_;
    }
}

} // namespace parlune::test
