#pragma once

#include <deque>
#include <optional>
#include <utility>

namespace parlune {

// Download speed over the last few seconds, and the time left at that speed. A sliding window
// follows changes in speed without jumping at every packet.
class TransferRate {
public:
    explicit TransferRate(double windowSeconds = 5.0) : windowSeconds_(windowSeconds) {}

    void reset() { samples_.clear(); }
    // `totalBytes` transferred so far, observed at `uptimeSeconds`.
    void record(double uptimeSeconds, long long totalBytes);

    double bytesPerSecond() const;
    // nullopt until a speed is known.
    std::optional<double> secondsLeft(long long remainingBytes) const;

private:
    double windowSeconds_;
    std::deque<std::pair<double, long long>> samples_;
};

} // namespace parlune
