#pragma once

#include "core/diagnostics/DiagnosticsLogger.h"

#include <QString>

#include <deque>
#include <optional>

namespace parlune {

// One diagnostics line as the settings window lists it.
struct DiagnosticEventView {
    QString title;
    QString outcome;
    // The error category, when the line has one.
    std::optional<QString> issue;
    bool succeeded = false;
};

// Turns the diagnostics log into what a person reads: average rewrite time with its rating, and
// readable event titles and outcomes.
class DiagnosticsPresentation {
public:
    DiagnosticsPresentation() = delete;

    // The mean of the records' times, truncated to whole milliseconds; none without records.
    static std::optional<qint64> averageMilliseconds(const std::deque<RewritePerformanceEntry>& entries);
    // "Excellent", "Fast", "Acceptable", "Slow" or "Very slow".
    static QString rating(qint64 milliseconds);
    // "1.23 s".
    static QString seconds(qint64 milliseconds);
    // "Average: 1.23 s · Fast".
    static QString averageLine(qint64 milliseconds);

    // A readable title for a logged stage. A few stages have their own wording, which for the model
    // stages depends on whether the line reports a success; any other name is split into words.
    static QString eventTitle(const QString& stage, bool succeeded = true);

    // Reads a "stage=… outcome=… error=…" line of the diagnostics logger.
    static DiagnosticEventView describe(const DiagnosticEntry& entry);
};

} // namespace parlune
