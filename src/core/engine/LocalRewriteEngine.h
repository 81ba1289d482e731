#pragma once

#include "core/engine/LocalModelAvailability.h"
#include "core/modes/RewriteMode.h"

#include <QCoro/QCoroTask>
#include <QString>

#include <stop_token>

namespace parlune {

// The model that rewrites text. Failures are LocalRewriteEngineError, or CancellationError.
class LocalRewriteEngine {
public:
    virtual ~LocalRewriteEngine() = default;

    virtual LocalModelAvailability availability() const = 0;
    // When the model is not available: what exactly is wrong (which model file, and why), for
    // settings and diagnostics; empty when available or unknown.
    virtual QString availabilityDetail() const { return {}; }
    // Warms the model up so that the first rewrite is fast.
    virtual QCoro::Task<void> prepare(std::stop_token token) = 0;
    // The finished, normalised replacement of `text`.
    virtual QCoro::Task<QString> rewrite(QString text, RewriteMode mode, QString preferences,
                                         std::stop_token token) = 0;
};

} // namespace parlune
