#pragma once

#include <functional>
#include <memory>

class QSocketNotifier;

namespace parlune {

// Turns SIGTERM, SIGINT and SIGHUP (logout, Ctrl+C in a terminal) into a call on the main
// thread, so the program quits through its normal shutdown and puts the user's clipboard back
// instead of dying mid-paste. One instance per process.
class TerminationSignals {
public:
    explicit TerminationSignals(std::function<void()> onSignal);
    ~TerminationSignals();
    TerminationSignals(const TerminationSignals&) = delete;
    TerminationSignals& operator=(const TerminationSignals&) = delete;

private:
    std::function<void()> onSignal_;
    std::unique_ptr<QSocketNotifier> notifier_;
};

} // namespace parlune
