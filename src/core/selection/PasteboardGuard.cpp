#include "core/selection/PasteboardGuard.h"

#include "core/async/Sleep.h"

#include <algorithm>

namespace parlune {

void PasteboardGuard::State::release() {
    // A waiter whose cancellation already completed its continuation refuses the hand-over; the
    // next one in line gets it instead.
    while (!waiters.empty()) {
        Continuation<void> next = waiters.front().turn;
        waiters.pop_front();
        if (next.resume()) {
            return; // ownership passes on; the guard stays held
        }
    }
    held = false;
}

PasteboardGuard::Lease& PasteboardGuard::Lease::operator=(Lease&& other) noexcept {
    if (this != &other) {
        release();
        state_ = std::move(other.state_);
    }
    return *this;
}

void PasteboardGuard::Lease::release() {
    if (auto state = std::exchange(state_, nullptr)) {
        state->release();
    }
}

QCoro::Task<PasteboardGuard::Lease> PasteboardGuard::acquire(std::stop_token token) {
    throwIfCancelled(token);
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
        auto& waiters = state->waiters;
        waiters.erase(
            std::remove_if(waiters.begin(), waiters.end(),
                           [ticket](const State::Waiter& waiter) { return waiter.ticket == ticket; }),
            waiters.end());
        throw;
    }
    co_return Lease(state);
}

} // namespace parlune
