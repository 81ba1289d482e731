#include "core/diagnostics/DiagnosticsLogger.h"

#include <QList>
#include <QString>

#include <algorithm>

namespace parlune {

namespace {

// Keeps the code points that pass `keep`, at most `limit` of them.
template <typename Keep>
std::string filtered(std::string_view text, qsizetype limit, Keep keep) {
    const QString source = QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size()));
    QString kept;
    qsizetype count = 0;
    for (const char32_t codePoint : source.toUcs4()) {
        if (count == limit) {
            break;
        }
        if (keep(codePoint)) {
            kept.append(QString::fromUcs4(&codePoint, 1));
            ++count;
        }
    }
    return kept.toStdString();
}

bool isLetterOrDigit(char32_t codePoint) { return QChar::isLetterOrNumber(codePoint); }

template <typename Entries>
void trim(Entries& entries, int maxEntries) {
    while (entries.size() > static_cast<std::size_t>(maxEntries)) {
        entries.pop_back();
    }
}

} // namespace

DiagnosticsLogger::DiagnosticsLogger(int maxEntries, const Clock& clock)
    : maxEntries_(std::max(maxEntries, 0)), clock_(clock) {}

std::string DiagnosticsLogger::safeCategory(std::string_view category) {
    std::string safe = filtered(category, 80, [](char32_t c) { return isLetterOrDigit(c) || c == U'-' || c == U'_'; });
    return safe.empty() ? std::string("unknown") : safe;
}

std::string DiagnosticsLogger::safeIdentifier(const std::optional<std::string>& identifier) {
    return filtered(identifier.value_or("unknown"), 160,
                    [](char32_t c) { return isLetterOrDigit(c) || c == U'.' || c == U'-' || c == U'_'; });
}

void DiagnosticsLogger::logRewrite(RewriteDiagnosticStage stage,
                                   const std::optional<std::string>& applicationBundleIdentifier,
                                   long long textLength, std::optional<long long> elapsedMilliseconds,
                                   const std::optional<std::string>& errorCategory) {
    const std::string app = safeIdentifier(applicationBundleIdentifier);
    std::string line = "stage=";
    line += rewrite_diagnostic_stage::rawValue(stage);
    line += " app=" + app;
    line += " length=" + std::to_string(textLength);
    if (elapsedMilliseconds) {
        line += " elapsed_ms=" + std::to_string(*elapsedMilliseconds);
    }
    if (errorCategory) {
        line += " error=" + safeCategory(*errorCategory);
    }
    record(std::move(line));

    if (stage == RewriteDiagnosticStage::completed && elapsedMilliseconds) {
        performance_.push_front(
            RewritePerformanceEntry{QUuid::createUuid(), clock_.now(), app, textLength, *elapsedMilliseconds});
        trim(performance_, maxEntries_);
        changed.emit();
    }
}

void DiagnosticsLogger::logEvent(std::string_view stage, const std::optional<std::string>& outcome,
                                 const std::optional<std::string>& errorCategory) {
    std::string line = "stage=" + safeCategory(stage);
    if (outcome) {
        line += " outcome=" + safeCategory(*outcome);
    }
    if (errorCategory) {
        line += " error=" + safeCategory(*errorCategory);
    }
    record(std::move(line));
}

void DiagnosticsLogger::record(std::string line) {
    entries_.push_front(DiagnosticEntry{QUuid::createUuid(), clock_.now(), std::move(line)});
    trim(entries_, maxEntries_);
    changed.emit();
}

void DiagnosticsLogger::clear() {
    entries_.clear();
    performance_.clear();
    changed.emit();
}

} // namespace parlune
