#pragma once

#include "core/async/ChangeSignal.h"
#include "core/async/Clock.h"
#include "core/diagnostics/RewriteDiagnosticStage.h"

#include <QString>
#include <QUuid>

#include <deque>
#include <optional>

namespace parlune {

// One log line: space-separated key=value parts, never any selected text.
struct DiagnosticEntry {
    QUuid id;
    WallTime date;
    QString message;

    friend bool operator==(const DiagnosticEntry&, const DiagnosticEntry&) = default;
};

// The timing of one completed rewrite, measured from the shortcut press.
struct RewritePerformanceEntry {
    QUuid id;
    WallTime date;
    QString applicationBundleIdentifier; // already sanitised
    qint64 inputLength = 0;
    qint64 elapsedMilliseconds = 0;

    friend bool operator==(const RewritePerformanceEntry&, const RewritePerformanceEntry&) = default;
};

// In-memory history of what the rewrite pipeline did: log lines and timing records, each list
// newest first and bounded. Nothing is persisted. Main thread only.
class DiagnosticsLogger {
public:
    // The application keeps this many lines and records.
    static constexpr int defaultMaxEntries = 80;

    explicit DiagnosticsLogger(int maxEntries = defaultMaxEntries,
                               const Clock& clock = SystemClock::shared());

    const std::deque<DiagnosticEntry>& entries() const { return entries_; }
    const std::deque<RewritePerformanceEntry>& rewritePerformanceEntries() const { return performance_; }
    int maxEntries() const { return maxEntries_; }

    // "stage=… app=… length=…[ elapsed_ms=…][ error=…]"; a completed stage with a time also
    // adds a performance record.
    void logRewrite(RewriteDiagnosticStage stage, const std::optional<QString>& applicationBundleIdentifier,
                    qint64 textLength, std::optional<qint64> elapsedMilliseconds = std::nullopt,
                    const std::optional<QString>& errorCategory = std::nullopt);

    // "stage=…[ outcome=…][ error=…]" for events outside a rewrite ("prepare", "hotkey_change").
    void logEvent(const QString& stage, const std::optional<QString>& outcome = std::nullopt,
                  const std::optional<QString>& errorCategory = std::nullopt);

    // Appends one raw line.
    void record(QString line);

    void clear();

    // Called after every insertion, trimming and clearing.
    ChangeSignal<> changed;

    // Letters and digits of any script, "-" and "_"; "unknown" when nothing is left; at most 80
    // characters.
    static QString safeCategory(const QString& category);
    // Letters, digits, ".", "-" and "_" of the identifier, or of "unknown" when there is none; at
    // most 160 characters. May be empty.
    static QString safeIdentifier(const std::optional<QString>& identifier);

private:
    int maxEntries_;
    const Clock& clock_;
    std::deque<DiagnosticEntry> entries_;
    std::deque<RewritePerformanceEntry> performance_;
};

} // namespace parlune
