#pragma once

#include "core/async/Continuation.h"
#include "core/async/WeakRef.h"

#include <QCoro/QCoroTask>

#include <cstdint>
#include <deque>
#include <stop_token>

namespace parlune {

// Lets one model generation run at a time. An asynchronous lock with first-come, first-served
// hand-over: a release passes the gate straight to the oldest waiter, so it is never free in
// between and no newcomer can overtake. Waiting is cancellable. Main thread only.
class RewriteGenerationGate {
public:
    RewriteGenerationGate() = default;
    // Waiters still queued end with CancellationError rather than hanging.
    ~RewriteGenerationGate();
    RewriteGenerationGate(const RewriteGenerationGate&) = delete;
    RewriteGenerationGate& operator=(const RewriteGenerationGate&) = delete;

    // Returns holding the gate. Throws CancellationError when `token` is stopped before the caller
    // gets the gate or just as it is handed over; the gate then goes on to the next waiter.
    QCoro::Task<void> acquire(std::stop_token token);

    // Gives the gate to the oldest waiter, or frees it. Releasing a gate nobody holds is a
    // programming error that stops the process.
    void release();

    bool isAcquired() const { return isAcquired_; }
    std::size_t waiterCount() const { return waiters_.size(); }

private:
    struct Waiter {
        std::uint64_t id;
        Continuation<void> continuation;
    };

    void cancel(std::uint64_t waiterID);

    bool isAcquired_ = false;
    std::deque<Waiter> waiters_;
    std::uint64_t nextWaiterID_ = 0;
    LifetimeToken lifetime_;
};

} // namespace parlune
