#pragma once

#include "core/async/ChangeSignal.h"
#include "core/async/Clock.h"
#include "core/diagnostics/RewriteDiagnosticStage.h"

#include <QUuid>

#include <deque>
#include <optional>
#include <string>
#include <string_view>

namespace parlune {

// One log line: space-separated key=value parts, never any selected text.
struct DiagnosticEntry {
    QUuid id;
    WallTime date;
    std::string message;

    friend bool operator==(const DiagnosticEntry&, const DiagnosticEntry&) = default;
};

// The timing of one completed rewrite, measured from the shortcut press.
struct RewritePerformanceEntry {
    QUuid id;
    WallTime date;
    std::string applicationBundleIdentifier; // already sanitised
    long long inputLength = 0;
    long long elapsedMilliseconds = 0;

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
    void logRewrite(RewriteDiagnosticStage stage, const std::optional<std::string>& applicationBundleIdentifier,
                    long long textLength, std::optional<long long> elapsedMilliseconds = std::nullopt,
                    const std::optional<std::string>& errorCategory = std::nullopt);

    // "stage=…[ outcome=…][ error=…]" for events outside a rewrite ("prepare", "hotkey_change").
    void logEvent(std::string_view stage, const std::optional<std::string>& outcome = std::nullopt,
                  const std::optional<std::string>& errorCategory = std::nullopt);

    // Appends one raw line.
    void record(std::string line);

    void clear();

    // Called after every insertion, trimming and clearing.
    ChangeSignal<> changed;

    // Letters and digits of any script, "-" and "_"; "unknown" when nothing is left; at most 80
    // characters.
    static std::string safeCategory(std::string_view category);
    // Letters, digits, ".", "-" and "_" of the identifier, or of "unknown" when there is none; at
    // most 160 characters. May be empty.
    static std::string safeIdentifier(const std::optional<std::string>& identifier);

private:
    int maxEntries_;
    const Clock& clock_;
    std::deque<DiagnosticEntry> entries_;
    std::deque<RewritePerformanceEntry> performance_;
};

} // namespace parlune
