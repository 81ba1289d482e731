#pragma once

#include <QCoreApplication>
#include <QCoro/QCoroTask>
#include <QElapsedTimer>
#include <QTimer>

#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <type_traits>

namespace parlune::test {

// Runs the event loop until `done` holds or `timeoutMs` passes; returns whether `done` held.
// A ticking timer wakes the loop to re-check, so the thread sleeps between events instead of
// spinning (processEvents with a time limit ignores WaitForMoreEvents).
inline bool pumpUntil(const std::function<bool()>& done, int timeoutMs = 5000) {
    QTimer tick;
    tick.start(2);
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents);
    }
    return true;
}

// Runs the event loop for about `ms` milliseconds.
inline void pumpFor(int ms) {
    QElapsedTimer timer;
    timer.start();
    pumpUntil([&] { return timer.elapsed() >= ms; }, ms + 1000);
}

// Runs a task to completion on the event loop and returns its result, rethrowing its error.
// (Unlike QCoro::waitFor this also copes with a task that finished before it was awaited.)
template <typename T>
T runTask(QCoro::Task<T>&& task, int timeoutMs = 30000) {
    std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> result;
    std::exception_ptr error;
    bool done = false;
    // The closure must outlive the coroutine, whose captures it holds: a named lambda, not a
    // temporary (a temporary dies at the end of the statement and optimised builds crash).
    auto body = [&]() -> QCoro::Task<void> {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(task);
                result = true;
            } else {
                result = co_await std::move(task);
            }
        } catch (...) {
            error = std::current_exception();
        }
        done = true;
    };
    QCoro::Task<void> driver = body();
    if (!pumpUntil([&] { return done; }, timeoutMs)) {
        throw std::runtime_error("runTask: the task did not finish in time");
    }
    if (error) {
        std::rethrow_exception(error);
    }
    if constexpr (!std::is_void_v<T>) {
        return std::move(*result);
    }
}

} // namespace parlune::test
