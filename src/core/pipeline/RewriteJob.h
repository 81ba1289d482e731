#pragma once

#include "core/async/Clock.h"
#include "core/modes/RewriteMode.h"
#include "core/selection/CapturedSelection.h"

#include <QString>
#include <QUuid>

namespace parlune {

// One rewrite to run: the selection and the mode and preferences in force at the shortcut press.
struct RewriteJob {
    QUuid id;
    CapturedSelection selection;
    RewriteMode mode;
    QString preferences;
    // The press time; every total time of the job is measured from it, queue wait included.
    WallTime submittedAt;
};

// The immediate answer of the queue's enqueue.
enum class RewriteJobEnqueueResult {
    accepted,     // pending or running; its completion will be called
    deduplicated, // same selection within the interval; dropped, completion never called
    queueFull,    // too many outstanding jobs; dropped, completion never called
};

// The answer of the awaitable submit.
enum class RewriteJobSubmission {
    completed, // ran (successfully or not) and its completion fired
    deduplicated,
    queueFull,
};

} // namespace parlune
