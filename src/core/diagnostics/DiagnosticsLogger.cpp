#include "core/diagnostics/DiagnosticsLogger.h"

#include <QList>

#include <algorithm>

namespace parlune {

namespace {

// Keeps the code points that pass `keep`, at most `limit` of them.
template <typename Keep> QString filtered(const QString& text, qsizetype limit, Keep keep) {
    QString kept;
    qsizetype count = 0;
    for (const char32_t codePoint : text.toUcs4()) {
        if (count == limit) {
            break;
        }
        if (keep(codePoint)) {
            kept.append(QString::fromUcs4(&codePoint, 1));
            ++count;
        }
    }
    return kept;
}

bool isLetterOrDigit(char32_t codePoint) {
    return QChar::isLetterOrNumber(codePoint);
}

template <typename Entries> void trim(Entries& entries, int maxEntries) {
    while (entries.size() > static_cast<std::size_t>(maxEntries)) {
        entries.pop_back();
    }
}

} // namespace

DiagnosticsLogger::DiagnosticsLogger(int maxEntries, const Clock& clock)
    : maxEntries_(std::max(maxEntries, 0)), clock_(clock) {}

QString DiagnosticsLogger::safeCategory(const QString& category) {
    const QString safe =
        filtered(category, 80, [](char32_t c) { return isLetterOrDigit(c) || c == U'-' || c == U'_'; });
    return safe.isEmpty() ? QStringLiteral("unknown") : safe;
}

QString DiagnosticsLogger::safeIdentifier(const std::optional<QString>& identifier) {
    return filtered(identifier.value_or(QStringLiteral("unknown")), 160,
                    [](char32_t c) { return isLetterOrDigit(c) || c == U'.' || c == U'-' || c == U'_'; });
}

void DiagnosticsLogger::logRewrite(RewriteDiagnosticStage stage,
                                   const std::optional<QString>& applicationBundleIdentifier,
                                   qint64 textLength, std::optional<qint64> elapsedMilliseconds,
                                   const std::optional<QString>& errorCategory) {
    const QString app = safeIdentifier(applicationBundleIdentifier);
    const std::string_view stageName = rewrite_diagnostic_stage::rawValue(stage);
    QString line =
        QStringLiteral("stage=") + QString::fromLatin1(stageName.data(), qsizetype(stageName.size()));
    line += QStringLiteral(" app=") + app;
    line += QStringLiteral(" length=") + QString::number(textLength);
    if (elapsedMilliseconds) {
        line += QStringLiteral(" elapsed_ms=") + QString::number(*elapsedMilliseconds);
    }
    if (errorCategory) {
        line += QStringLiteral(" error=") + safeCategory(*errorCategory);
    }
    record(std::move(line));

    if (stage == RewriteDiagnosticStage::completed && elapsedMilliseconds) {
        performance_.push_front(RewritePerformanceEntry{QUuid::createUuid(), clock_.now(), app, textLength,
                                                        *elapsedMilliseconds});
        trim(performance_, maxEntries_);
        changed.emit();
    }
}

void DiagnosticsLogger::logEvent(const QString& stage, const std::optional<QString>& outcome,
                                 const std::optional<QString>& errorCategory) {
    QString line = QStringLiteral("stage=") + safeCategory(stage);
    if (outcome) {
        line += QStringLiteral(" outcome=") + safeCategory(*outcome);
    }
    if (errorCategory) {
        line += QStringLiteral(" error=") + safeCategory(*errorCategory);
    }
    record(std::move(line));
}

void DiagnosticsLogger::record(QString line) {
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
