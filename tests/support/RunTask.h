#pragma once

#include "core/async/TaskOutcome.h"

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

// Runs a task to completion on the event loop and returns its result, rethrowing its error; fails
// the test instead of hanging when it does not finish. (Unlike QCoro::waitFor this also copes with
// a task that finished before it was awaited.)
template <typename T> T runTask(QCoro::Task<T>&& task, int timeoutMs = 30000) {
    TaskOutcome<T> outcome(std::move(task));
    if (!pumpUntil([&] { return outcome.isFinished(); }, timeoutMs)) {
        throw std::runtime_error("runTask: the task did not finish in time");
    }
    return outcome.take();
}

} // namespace parlune::test
