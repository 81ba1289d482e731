#include "app/DiagnosticsSectionView.h"

#include "app/Style.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/shell/DiagnosticsPresentation.h"

#include <QLabel>
#include <QVBoxLayout>

namespace parlune::app {

namespace {

QLabel* heading(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setFont(Style::system(12, QFont::Black));
    return label;
}

} // namespace

DiagnosticsSectionView::DiagnosticsSectionView(DiagnosticsLogger& diagnostics, QWidget* parent)
    : QFrame(parent), diagnostics_(diagnostics), average_(new QLabel(this)), events_(new QWidget(this)),
      eventsLayout_(new QVBoxLayout(events_)) {
    Style::makePanel(*this);
    auto* title = new QLabel(QStringLiteral("Diagnostics"), this);
    title->setFont(Style::serif(19));
    auto* explanation =
        new QLabel(QStringLiteral("Total time from shortcut press to replacement. Under 1 second is "
                                  "fast, 1–2 seconds is acceptable, and over 2 seconds is slow."),
                   this);
    explanation->setWordWrap(true);
    explanation->setProperty("role", "detail");
    average_->setObjectName(QStringLiteral("rewriteTimesAverage"));
    eventsLayout_->setContentsMargins(0, 0, 0, 0);
    eventsLayout_->setSpacing(4);

    auto* layout = new QVBoxLayout(this);
    layout->setSpacing(6);
    layout->addWidget(title);
    layout->addWidget(heading(QStringLiteral("REWRITE TIMES"), this));
    layout->addWidget(explanation);
    layout->addWidget(average_);
    layout->addSpacing(8);
    layout->addWidget(heading(QStringLiteral("RECENT EVENTS"), this));
    layout->addWidget(events_);
    refresh();
}

void DiagnosticsSectionView::refresh() {
    const std::optional<qint64> average =
        DiagnosticsPresentation::averageMilliseconds(diagnostics_.rewritePerformanceEntries());
    average_->setText(average ? DiagnosticsPresentation::averageLine(*average)
                              : QStringLiteral("Successful rewrites will appear here."));

    while (QLayoutItem* item = eventsLayout_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    const auto& entries = diagnostics_.entries();
    if (entries.empty()) {
        eventsLayout_->addWidget(new QLabel(QStringLiteral("No diagnostics yet."), events_));
        return;
    }
    int shown = 0;
    for (const DiagnosticEntry& entry : entries) {
        if (shown++ == shownEvents) {
            break;
        }
        const DiagnosticEventView view = DiagnosticsPresentation::describe(entry);
        QString text = QStringLiteral("<b>%1</b>").arg(view.title.toHtmlEscaped());
        if (!view.outcome.isEmpty()) {
            text += QStringLiteral(" — ") + view.outcome.toHtmlEscaped();
        }
        if (view.issue) {
            text += QStringLiteral("<br><span style=\"color:%1\">Issue: %2</span>")
                        .arg(Palette::coralDark().name(), view.issue->toHtmlEscaped());
        }
        if (view.succeeded) {
            text = QStringLiteral("<span style=\"color:%1\">&#x2714;</span> ").arg(Palette::navy().name()) +
                   text;
        }
        auto* label = new QLabel(text, events_);
        label->setTextFormat(Qt::RichText);
        label->setWordWrap(true);
        eventsLayout_->addWidget(label);
    }
}

QString DiagnosticsSectionView::averageText() const {
    return average_->text();
}

} // namespace parlune::app
