#include "core/shell/DiagnosticsPresentation.h"

#include <QRegularExpression>
#include <QStringList>

namespace parlune {

namespace {

// Outcomes written by the pipeline and the shell that mean the step worked.
bool isSuccessOutcome(const QString& outcome) {
    return outcome == u"ready" || outcome == u"completed" || outcome == u"passed";
}

// "deterministicRewrite" and "hotkey_registration" become "Deterministic rewrite" and "Hotkey
// registration": words split at case changes and underscores, only the first capitalised.
QString readable(const QString& name) {
    static const QRegularExpression caseBoundary(QStringLiteral("([a-z0-9])([A-Z])"));
    QString spaced = name;
    spaced.replace(caseBoundary, QStringLiteral("\\1 \\2"));
    spaced.replace(u'_', u' ');
    QStringList words = spaced.split(u' ', Qt::SkipEmptyParts);
    for (qsizetype index = 0; index < words.size(); ++index) {
        QString& word = words[index];
        const bool acronym = word.size() > 1 && word.at(1).isUpper();
        if (index == 0) {
            word[0] = word.at(0).toUpper();
        } else if (!acronym) {
            word[0] = word.at(0).toLower();
        }
    }
    return words.join(u' ');
}

} // namespace

std::optional<qint64>
DiagnosticsPresentation::averageMilliseconds(const std::deque<RewritePerformanceEntry>& entries) {
    if (entries.empty()) {
        return std::nullopt;
    }
    // Summed as a double: a handful of records cannot lose a millisecond, and absurd ones cannot overflow.
    double total = 0;
    for (const RewritePerformanceEntry& entry : entries) {
        total += static_cast<double>(entry.elapsedMilliseconds);
    }
    return static_cast<qint64>(total / static_cast<double>(entries.size()));
}

QString DiagnosticsPresentation::rating(qint64 milliseconds) {
    if (milliseconds < 750) {
        return QStringLiteral("Excellent");
    }
    if (milliseconds <= 999) {
        return QStringLiteral("Fast");
    }
    if (milliseconds < 2000) {
        return QStringLiteral("Acceptable");
    }
    if (milliseconds < 3000) {
        return QStringLiteral("Slow");
    }
    return QStringLiteral("Very slow");
}

QString DiagnosticsPresentation::seconds(qint64 milliseconds) {
    return QString::asprintf("%.2f s", static_cast<double>(milliseconds) / 1000.0);
}

QString DiagnosticsPresentation::averageLine(qint64 milliseconds) {
    return QStringLiteral("Average: ") + seconds(milliseconds) + QStringLiteral(" · ") + rating(milliseconds);
}

QString DiagnosticsPresentation::eventTitle(const QString& stage, bool succeeded) {
    if (stage == u"prepare") {
        return succeeded ? QStringLiteral("On-device model prepared")
                         : QStringLiteral("On-device model preparation");
    }
    if (stage == u"modelRewrite") {
        return succeeded ? QStringLiteral("Rewrite generated") : QStringLiteral("Rewrite generation");
    }
    if (stage == u"staleTarget") {
        return QStringLiteral("Selection changed");
    }
    if (stage == u"completed") {
        return QStringLiteral("Rewrite completed");
    }
    if (stage == u"failed") {
        return QStringLiteral("Rewrite failed");
    }
    return readable(stage);
}

DiagnosticEventView DiagnosticsPresentation::describe(const DiagnosticEntry& entry) {
    std::optional<QString> stage;
    std::optional<QString> outcome;
    std::optional<QString> error;
    std::optional<qint64> elapsed;
    for (const QString& part : entry.message.split(u' ', Qt::SkipEmptyParts)) {
        const qsizetype equals = part.indexOf(u'=');
        if (equals <= 0) {
            continue;
        }
        const QString key = part.first(equals);
        const QString value = part.sliced(equals + 1);
        if (key == u"stage") {
            stage = value;
        } else if (key == u"outcome") {
            outcome = value;
        } else if (key == u"error") {
            error = value;
        } else if (key == u"elapsed_ms") {
            bool ok = false;
            const qint64 milliseconds = value.toLongLong(&ok);
            if (ok) {
                elapsed = milliseconds;
            }
        }
    }
    if (!stage) {
        // A raw line recorded by hand: shown as it is.
        return DiagnosticEventView{entry.message, QString(), std::nullopt, false};
    }

    // Rewrite lines carry no outcome: an error category is their failure.
    const bool succeeded = !error && (!outcome || isSuccessOutcome(*outcome));
    QString outcomeText;
    if (outcome) {
        outcomeText = readable(*outcome).toLower();
    } else {
        outcomeText = error ? QStringLiteral("failed") : QStringLiteral("completed");
    }
    if (elapsed) {
        outcomeText += QStringLiteral(" in ") + seconds(*elapsed);
    }
    return DiagnosticEventView{eventTitle(*stage, succeeded), outcomeText, error, succeeded};
}

} // namespace parlune
