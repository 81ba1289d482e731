#pragma once

#include <QCoro/QCoroTask>
#include <QEventLoop>

#include <exception>
#include <optional>
#include <type_traits>
#include <utility>

namespace parlune {

// Runs the main thread's event loop until `task` has finished and returns its result (rethrowing
// its error). For command-line entry points only, which have no event loop of their own: the
// thread sleeps between events instead of polling. Never call it from inside a coroutine.
template <typename T>
T runUntilDone(QCoro::Task<T> task) {
    std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> result;
    std::exception_ptr error;
    bool done = false;
    QEventLoop loop;
    // A named closure: the coroutine reads its captures after suspending.
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
        loop.quit();
    };
    QCoro::Task<void> driver = body();
    if (!done) {
        loop.exec();
    }
    if (error) {
        std::rethrow_exception(error);
    }
    if constexpr (!std::is_void_v<T>) {
        return std::move(*result);
    }
}

} // namespace parlune
