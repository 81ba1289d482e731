#pragma once

#include "core/selection/CapturedSelection.h"

#include <QCoro/QCoroTask>

#include <QString>

namespace parlune {

// Coroutine parameters are taken by value so that no caller's temporary can dangle.
// Reads, re-checks and replaces the selection of the focused application. Every operation runs on
// the main thread and fails with TextReplacementError, or CancellationError when cancelled.
class SelectionReplacing {
public:
    virtual ~SelectionReplacing() = default;

    // Captures whatever is selected in the application that has keyboard focus now.
    virtual QCoro::Task<CapturedSelection> capture(std::stop_token token) = 0;

    // Fails with selectionChanged when the selection no longer stands where it was captured with
    // the same text. An implementation that cannot re-check its target keeps this default.
    virtual QCoro::Task<void> validate(CapturedSelection selection, std::stop_token token) {
        (void)selection;
        (void)token;
        co_return;
    }

    // Puts `replacement` in place of the selection, re-validating the target first.
    virtual QCoro::Task<void> replace(QString replacement, CapturedSelection selection,
                                      std::stop_token token) = 0;
};

} // namespace parlune
