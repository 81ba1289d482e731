#pragma once

#include "core/async/CancellationError.h"
#include "core/async/MainThread.h"

#include <QCoro/QCoroTask>

#include <memory>
#include <stop_token>
#include <utility>

namespace parlune {

namespace detail {
struct SpawnedTaskState {
    std::stop_source stopSource;
    bool finished = false;
};
void reportUnexpectedTaskError();
} // namespace detail

// Handle of a spawned task: cancel it, ask whether it ended. Dropping the handle does not cancel.
class TaskHandle {
public:
    TaskHandle() = default;
    explicit TaskHandle(std::shared_ptr<detail::SpawnedTaskState> state) : state_(std::move(state)) {}

    void cancel() {
        if (state_) {
            state_->stopSource.request_stop();
        }
    }
    bool isCancelled() const { return state_ && state_->stopSource.stop_requested(); }
    bool isFinished() const { return state_ && state_->finished; }
    bool isValid() const { return static_cast<bool>(state_); }

private:
    std::shared_ptr<detail::SpawnedTaskState> state_;
};

namespace detail {
template <typename Body> QCoro::Task<void> runSpawned(std::shared_ptr<SpawnedTaskState> state, Body body) {
    // Like a freshly created task elsewhere, the body starts on a later turn of the event loop,
    // never inside its creator's call.
    co_await yieldToEventLoop();
    try {
        co_await body(state->stopSource.get_token());
    } catch (const CancellationError&) {
        // A cancelled task ends quietly.
    } catch (...) {
        reportUnexpectedTaskError();
    }
    state->finished = true;
}
} // namespace detail

// Starts `body(std::stop_token)`, a coroutine returning QCoro::Task<void>, as an independent task
// on the main thread. The body should hold its owner through a WeakRef.
template <typename Body> TaskHandle spawnTask(Body body) {
    auto state = std::make_shared<detail::SpawnedTaskState>();
    // The returned QCoro::Task is dropped on purpose: the coroutine frees itself when it finishes.
    (void)detail::runSpawned(state, std::move(body));
    return TaskHandle(state);
}

} // namespace parlune
