#pragma once

#include "core/async/CancellationError.h"
#include "core/async/MainThread.h"

#include <cassert>
#include <coroutine>
#include <exception>
#include <memory>
#include <optional>
#include <stop_token>
#include <type_traits>
#include <utility>
#include <variant>

namespace parlune {

// A one-shot rendezvous: one coroutine suspends on `wait()`, someone else later completes it with a
// value or an error. The first completion wins and later ones report false, which is what gates and
// guards need when a hand-over races a cancellation. Resumption is always posted to the event loop,
// so whoever completes the continuation never runs the waiter's code on its own stack.
// Copies share one state. Main thread only, except that the stop callback may fire anywhere.
template <typename T = void> class Continuation {
    using Stored = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

    struct State {
        std::optional<Stored> value;
        std::exception_ptr error;
        bool completed = false;
        std::coroutine_handle<> waiter;

        bool complete(std::optional<Stored> newValue, std::exception_ptr newError) {
            if (completed) {
                return false;
            }
            completed = true;
            value = std::move(newValue);
            error = std::move(newError);
            if (waiter) {
                std::coroutine_handle<> handle = std::exchange(waiter, {});
                postToMainThread([handle] { handle.resume(); });
            }
            return true;
        }
    };

public:
    Continuation() : state_(std::make_shared<State>()) {}

    template <typename U = T>
    requires(!std::is_void_v<U>) bool resume(U value) {
        return state_->complete(Stored(std::move(value)), nullptr);
    }

    template <typename U = T>
    requires std::is_void_v<U>
    bool resume() { return state_->complete(std::monostate{}, nullptr); }

    bool resumeThrowing(std::exception_ptr error) { return state_->complete(std::nullopt, std::move(error)); }

    bool isCompleted() const { return state_->completed; }
    bool hasWaiter() const { return static_cast<bool>(state_->waiter); }

    class Awaiter {
    public:
        Awaiter(std::shared_ptr<State> state, std::stop_token token)
            : state_(std::move(state)), token_(std::move(token)) {}

        bool await_ready() const noexcept { return state_->completed; }

        bool await_suspend(std::coroutine_handle<> handle) {
            assert(!state_->waiter && "a continuation has a single waiter");
            if (token_.stop_requested()) {
                state_->complete(std::nullopt, std::make_exception_ptr(CancellationError{}));
                return false;
            }
            state_->waiter = handle;
            std::weak_ptr<State> weak = state_;
            stopCallback_ = std::make_unique<std::stop_callback<StopHandler>>(token_, StopHandler{weak});
            return true;
        }

        T await_resume() {
            stopCallback_.reset();
            if (state_->error) {
                std::rethrow_exception(state_->error);
            }
            if constexpr (!std::is_void_v<T>) {
                return std::move(*state_->value);
            }
        }

    private:
        struct StopHandler {
            std::weak_ptr<State> state;
            void operator()() const {
                // May run on the thread that requested the stop: hop to the main thread first.
                postToMainThread([weak = state] {
                    if (auto live = weak.lock()) {
                        live->complete(std::nullopt, std::make_exception_ptr(CancellationError{}));
                    }
                });
            }
        };

        std::shared_ptr<State> state_;
        std::stop_token token_;
        // Heap-held so the awaiter stays movable, as coroutine frameworks expect.
        std::unique_ptr<std::stop_callback<StopHandler>> stopCallback_;
    };

    // Suspends until completed; a stop request on `token` completes it with CancellationError.
    Awaiter wait(std::stop_token token = {}) const { return Awaiter(state_, std::move(token)); }

private:
    std::shared_ptr<State> state_;
};

} // namespace parlune
