#pragma once

#include <QPointer>
#include <QString>
#include <QTimer>
#include <QWidget>

class QLabel;

namespace parlune::app {

// The floating message panel: frameless, never takes focus, lets the mouse through, at the
// top-right of the screen under the pointer, gone after three seconds. A new message replaces
// the old one and starts the three seconds again.
class CompactErrorPresenter {
public:
    static constexpr int visibleMilliseconds = 3000;

    CompactErrorPresenter();
    ~CompactErrorPresenter();
    CompactErrorPresenter(const CompactErrorPresenter&) = delete;
    CompactErrorPresenter& operator=(const CompactErrorPresenter&) = delete;

    void show(const QString& message);
    void close();
    // The panel on screen now, if any (tests, screenshots).
    QWidget* panel() const { return panel_; }

private:
    QPointer<QWidget> panel_;
    QTimer hideTimer_;
};

} // namespace parlune::app
