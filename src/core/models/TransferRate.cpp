#include "core/models/TransferRate.h"

namespace parlune {

void TransferRate::record(double uptimeSeconds, long long totalBytes) {
    samples_.emplace_back(uptimeSeconds, totalBytes);
    // Keep one sample older than the window, so the window is always fully covered.
    while (samples_.size() > 2 && samples_[1].first <= uptimeSeconds - windowSeconds_) {
        samples_.pop_front();
    }
}

double TransferRate::bytesPerSecond() const {
    if (samples_.size() < 2) {
        return 0.0;
    }
    const double seconds = samples_.back().first - samples_.front().first;
    const long long bytes = samples_.back().second - samples_.front().second;
    return seconds > 0.0 && bytes > 0 ? static_cast<double>(bytes) / seconds : 0.0;
}

std::optional<double> TransferRate::secondsLeft(long long remainingBytes) const {
    const double rate = bytesPerSecond();
    if (rate <= 0.0) {
        return std::nullopt;
    }
    return static_cast<double>(remainingBytes > 0 ? remainingBytes : 0) / rate;
}

} // namespace parlune
