#pragma once

#include <QCoreApplication>
#include <QCoro/QCoroTask>
#include <QElapsedTimer>

#include <functional>

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

// Runs a task to completion on the event loop and returns its result (rethrowing its error).
template <typename T>
T runTask(QCoro::Task<T>&& task) {
    return QCoro::waitFor(std::move(task));
}

} // namespace parlune::test
