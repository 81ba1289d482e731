#include "core/engine/RewriteGenerationGate.h"

#include "core/async/CancellationError.h"
#include "core/async/MainThread.h"

#include <cstdio>
#include <cstdlib>

namespace parlune {

RewriteGenerationGate::~RewriteGenerationGate() {
    for (Waiter& waiter : waiters_) {
        waiter.continuation.resumeThrowing(std::make_exception_ptr(CancellationError{}));
    }
}

QCoro::Task<void> RewriteGenerationGate::acquire(std::stop_token token) {
    if (token.stop_requested()) {
        throw CancellationError{};
    }
    if (!isAcquired_) {
        isAcquired_ = true;
        if (token.stop_requested()) {
            release();
            throw CancellationError{};
        }
        co_return;
    }

    const std::uint64_t id = nextWaiterID_++;
    Continuation<void> turn;
    waiters_.push_back(Waiter{id, turn});
    // The stop may come from any thread; the removal itself happens on the main thread, and only
    // while the gate still exists.
    std::stop_callback onCancel(token, [weakGate = lifetime_.weak(this), id] {
        postToMainThread([weakGate, id] {
            if (RewriteGenerationGate* gate = weakGate.lock()) {
                gate->cancel(id);
            }
        });
    });

    // A waiter cancelled before its turn resumes with CancellationError from cancel(); success means
    // the gate was handed over and is held now.
    co_await turn.wait();

    if (token.stop_requested()) {
        // Cancelled just as the gate arrived: pass it on rather than hold it for nobody.
        release();
        throw CancellationError{};
    }
}

void RewriteGenerationGate::release() {
    if (!isAcquired_) {
        std::fputs("parlune: the generation gate was released without a holder\n", stderr);
        std::abort();
    }
    while (!waiters_.empty()) {
        Waiter next = std::move(waiters_.front());
        waiters_.pop_front();
        if (next.continuation.resume()) {
            return; // isAcquired_ stays true: ownership passes straight on
        }
    }
    isAcquired_ = false;
}

void RewriteGenerationGate::cancel(std::uint64_t waiterID) {
    for (auto it = waiters_.begin(); it != waiters_.end(); ++it) {
        if (it->id == waiterID) {
            Continuation<void> continuation = it->continuation;
            waiters_.erase(it);
            continuation.resumeThrowing(std::make_exception_ptr(CancellationError{}));
            return;
        }
    }
}

} // namespace parlune
