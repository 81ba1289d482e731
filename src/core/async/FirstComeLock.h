#pragma once

#include "core/async/Continuation.h"

#include <QCoro/QCoroTask>

#include <cstdint>
#include <deque>
#include <memory>
#include <stop_token>

namespace parlune {

// An asynchronous lock, first come first served: a release hands the lock straight to the oldest
// waiter, so it is never free in between and no newcomer can overtake. Waiting is cancellable, and
// the stop may come from any thread. Main thread only otherwise.
class FirstComeLock {
    struct State {
        struct Waiter {
            std::uint64_t ticket;
            Continuation<void> turn;
        };
        bool held = false;
        std::uint64_t nextTicket = 0;
        std::deque<Waiter> waiters;
        void release();
    };

public:
    // Holding the lock; releases it when destroyed (every exit of the holder, errors and
    // cancellation included). May outlive the lock.
    class Lease {
    public:
        Lease() = default;
        Lease(Lease&& other) noexcept = default;
        Lease& operator=(Lease&& other) noexcept;
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        ~Lease() { release(); }

        void release();
        bool isHeld() const { return static_cast<bool>(state_); }

    private:
        friend class FirstComeLock;
        explicit Lease(std::shared_ptr<State> state) : state_(std::move(state)) {}
        std::shared_ptr<State> state_;
    };

    FirstComeLock() : state_(std::make_shared<State>()) {}
    // Waiters still in line end with CancellationError rather than hanging.
    ~FirstComeLock();
    FirstComeLock(const FirstComeLock&) = delete;
    FirstComeLock& operator=(const FirstComeLock&) = delete;

    // Returns holding the lock: at once when free, otherwise after waiting in line. Throws
    // CancellationError when `token` is stopped first, while waiting (the place in line is given
    // up) or just as the lock is handed over (it goes on to the next in line).
    QCoro::Task<Lease> acquire(std::stop_token token);

    bool isHeld() const { return state_->held; }
    std::size_t waiterCount() const { return state_->waiters.size(); }

private:
    std::shared_ptr<State> state_;
};

} // namespace parlune
