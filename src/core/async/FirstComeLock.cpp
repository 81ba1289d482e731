#include "core/async/FirstComeLock.h"

#include "core/async/CancellationError.h"

#include <utility>

namespace parlune {

void FirstComeLock::State::release() {
    // A waiter whose cancellation already completed its continuation refuses the hand-over; the
    // next one in line gets it instead.
    while (!waiters.empty()) {
        Continuation<void> next = waiters.front().turn;
        waiters.pop_front();
        if (next.resume()) {
            return; // ownership passes on; the lock stays held
        }
    }
    held = false;
}

FirstComeLock::Lease& FirstComeLock::Lease::operator=(Lease&& other) noexcept {
    if (this != &other) {
        release();
        state_ = std::move(other.state_);
    }
    return *this;
}

void FirstComeLock::Lease::release() {
    if (auto state = std::exchange(state_, nullptr)) {
        state->release();
    }
}

FirstComeLock::~FirstComeLock() {
    for (State::Waiter& waiter : std::exchange(state_->waiters, {})) {
        waiter.turn.resumeThrowing(std::make_exception_ptr(CancellationError{}));
    }
}

QCoro::Task<FirstComeLock::Lease> FirstComeLock::acquire(std::stop_token token) {
    if (token.stop_requested()) {
        throw CancellationError{};
    }
    std::shared_ptr<State> state = state_;
    if (!state->held) {
        state->held = true;
        co_return Lease(state);
    }
    Continuation<void> turn;
    const std::uint64_t ticket = state->nextTicket++;
    state->waiters.push_back({ticket, turn});
    try {
        co_await turn.wait(token);
    } catch (const CancellationError&) {
        std::erase_if(state->waiters,
                      [ticket](const State::Waiter& waiter) { return waiter.ticket == ticket; });
        throw;
    }
    Lease lease(state);
    if (token.stop_requested()) {
        throw CancellationError{}; // handed over just as it was cancelled: the lease passes it on
    }
    co_return lease;
}

} // namespace parlune
