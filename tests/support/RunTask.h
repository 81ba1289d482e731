#pragma once

#include <QCoreApplication>
#include <QCoro/QCoroTask>
#include <QElapsedTimer>

#include <exception>
#include <functional>
#include <optional>
#include <stdexcept>
#include <type_traits>
#include <variant>

namespace parlune::test {

// Runs the event loop until `done` holds or `timeoutMs` passes; returns whether `done` held.
inline bool pumpUntil(const std::function<bool()>& done, int timeoutMs = 5000) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > timeoutMs) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 10);
    }
    return true;
}

// Runs the event loop for about `ms` milliseconds.
inline void pumpFor(int ms) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) {
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 5);
    }
}

namespace detail {
template <typename T, typename Stored>
QCoro::Task<void> settle(QCoro::Task<T> task, std::optional<Stored>& value, std::exception_ptr& error, bool& done) {
    try {
        if constexpr (std::is_void_v<T>) {
            co_await std::move(task);
            value.emplace();
        } else {
            value.emplace(co_await std::move(task));
        }
    } catch (...) {
        error = std::current_exception();
    }
    done = true;
}
} // namespace detail

// Runs a task to completion on the event loop and returns its result, rethrowing its error.
// (QCoro::waitFor never returns from a task that throws, so errors are caught here first.)
template <typename T>
T runTask(QCoro::Task<T>&& task, int timeoutMs = 30000) {
    using Stored = std::conditional_t<std::is_void_v<T>, std::monostate, T>;
    std::optional<Stored> value;
    std::exception_ptr error;
    bool done = false;
    QCoro::Task<void> runner = detail::settle<T, Stored>(std::move(task), value, error, done);
    if (!pumpUntil([&] { return done; }, timeoutMs)) {
        throw std::runtime_error("runTask: the task did not finish in time");
    }
    if (error) {
        std::rethrow_exception(error);
    }
    if constexpr (!std::is_void_v<T>) {
        return std::move(*value);
    }
}

} // namespace parlune::test
