#pragma once

#include "StallWatchdog.h"
#include "support/RunTask.h"

#include <QCoro/QCoroTask>

#include <exception>
#include <optional>
#include <type_traits>

namespace parlune::test {

// Runs a task on the event loop to its end; unlike QCoro::waitFor it needs no default-constructible
// result. The stall watchdog is armed meanwhile.
template <typename T> T finish(QCoro::Task<T>&& task) {
    StallWatchdog::Armed armed;
    std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> result;
    std::exception_ptr error;
    bool done = false;
    auto body = [&](QCoro::Task<T> inner) -> QCoro::Task<void> {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(inner);
            } else {
                result.emplace(co_await std::move(inner));
            }
        } catch (...) {
            error = std::current_exception();
        }
        done = true;
    };
    auto running = body(std::move(task));
    pumpUntil([&] { return done; }, 30000);
    if (error) {
        std::rethrow_exception(error);
    }
    if constexpr (!std::is_void_v<T>) {
        return std::move(*result);
    }
}

} // namespace parlune::test
