#pragma once

#include <QElapsedTimer>
#include <QTimer>

#include <string>

namespace parlune::test {

// Measures how long the main thread went without running its event loop while the ports were at
// work: a timer ticks every few milliseconds, and the longest gap between two ticks beyond the
// interval, counted only while armed, is the longest stall. Armed by finish() around every
// operation of the ports; harness waits (launching xdotool, the tests' own blocking queries) are
// not counted.
class StallWatchdog {
public:
    static constexpr int intervalMs = 5;

    // Starts ticking on the main thread's event loop; the one instance lives in main().
    StallWatchdog();
    ~StallWatchdog();
    StallWatchdog(const StallWatchdog&) = delete;
    StallWatchdog& operator=(const StallWatchdog&) = delete;

    static StallWatchdog* current();

    // While an Armed lives, stalls count.
    class Armed {
    public:
        Armed();
        ~Armed();
        Armed(const Armed&) = delete;
        Armed& operator=(const Armed&) = delete;
    };

    // The longest stall since the last reset, in milliseconds.
    qint64 longestStallMs() const { return longest_; }
    void reset() { longest_ = 0; }

private:
    void tick();

    QTimer timer_;
    QElapsedTimer clock_;
    qint64 lastTick_ = -1;
    int armed_ = 0;
    qint64 longest_ = 0;
};

} // namespace parlune::test
