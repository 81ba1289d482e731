#pragma once

#include <QCoro/QCoroTask>

#include <exception>
#include <functional>
#include <optional>
#include <type_traits>
#include <utility>

namespace parlune {

// Awaits a task from outside any coroutine and keeps what it left: its value or its error.
// `onFinished` runs once the task has ended (at once if it already had). Lives where it was made:
// its coroutine refers to it, so it can be neither copied nor moved.
template <typename T> class TaskOutcome {
public:
    TaskOutcome(QCoro::Task<T> task, std::function<void()> onFinished = {})
        : onFinished_(std::move(onFinished)), driver_(drive(std::move(task))) {}
    TaskOutcome(const TaskOutcome&) = delete;
    TaskOutcome& operator=(const TaskOutcome&) = delete;

    bool isFinished() const { return finished_; }

    // The task's value, or its error rethrown. Only once it has finished.
    T take() {
        if (error_) {
            std::rethrow_exception(error_);
        }
        if constexpr (!std::is_void_v<T>) {
            return std::move(*value_);
        }
    }

private:
    QCoro::Task<void> drive(QCoro::Task<T> task) {
        try {
            if constexpr (std::is_void_v<T>) {
                co_await std::move(task);
            } else {
                value_ = co_await std::move(task);
            }
        } catch (...) {
            error_ = std::current_exception();
        }
        finished_ = true;
        if (onFinished_) {
            onFinished_();
        }
    }

    std::optional<std::conditional_t<std::is_void_v<T>, bool, T>> value_;
    std::exception_ptr error_;
    bool finished_ = false;
    std::function<void()> onFinished_;
    QCoro::Task<void> driver_; // last: starts only once the fields above exist
};

} // namespace parlune
