#pragma once

#include "core/async/Continuation.h"

#include <QCoro/QCoroTask>

#include <cstdint>
#include <deque>
#include <memory>
#include <stop_token>

namespace parlune {

// Admits one pasteboard operation at a time, first come first served. A release hands ownership
// straight to the next waiter, so no third party can slip in between. Main thread only.
class PasteboardGuard {
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
    // Ownership of the guard; releases it when destroyed (every exit of the holder, errors and
    // cancellation included).
    class Lease {
    public:
        Lease() = default;
        explicit Lease(std::shared_ptr<State> state) : state_(std::move(state)) {}
        Lease(Lease&& other) noexcept = default;
        Lease& operator=(Lease&& other) noexcept;
        Lease(const Lease&) = delete;
        Lease& operator=(const Lease&) = delete;
        ~Lease() { release(); }

        void release();
        bool isHeld() const { return static_cast<bool>(state_); }

    private:
        std::shared_ptr<State> state_;
    };

    PasteboardGuard() : state_(std::make_shared<State>()) {}

    // Returns at once when free, otherwise waits in line. Throws CancellationError when `token` is
    // stopped while waiting; the place in line is then given up.
    QCoro::Task<Lease> acquire(std::stop_token token);

    bool isHeld() const { return state_->held; }
    std::size_t waiterCount() const { return state_->waiters.size(); }

private:
    std::shared_ptr<State> state_;
};

} // namespace parlune
