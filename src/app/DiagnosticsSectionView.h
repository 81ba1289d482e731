#pragma once

#include <QFrame>

class QLabel;
class QVBoxLayout;

namespace parlune {
class DiagnosticsLogger;
}

namespace parlune::app {

// "Diagnostics": the average total time of recent rewrites with its rating, and the recent
// events in readable words. Never shows any selected text: the log holds none.
class DiagnosticsSectionView : public QFrame {
public:
    static constexpr int shownEvents = 12;

    explicit DiagnosticsSectionView(DiagnosticsLogger& diagnostics, QWidget* parent = nullptr);
    void refresh();
    QString averageText() const;

private:
    DiagnosticsLogger& diagnostics_;
    QLabel* average_;
    QWidget* events_;
    QVBoxLayout* eventsLayout_;
};

} // namespace parlune::app
