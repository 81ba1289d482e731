#pragma once

#include "core/async/TaskOutcome.h"

#include <QEventLoop>

namespace parlune {

// Runs the main thread's event loop until `task` has finished and returns its result (rethrowing
// its error). For command-line entry points only, which have no event loop of their own: the
// thread sleeps between events instead of polling. Never call it from inside a coroutine.
template <typename T> T runUntilDone(QCoro::Task<T> task) {
    QEventLoop loop;
    TaskOutcome<T> outcome(std::move(task), [&loop] { loop.quit(); });
    if (!outcome.isFinished()) {
        loop.exec();
    }
    return outcome.take();
}

} // namespace parlune
