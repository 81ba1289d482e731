#pragma once

#include <QIcon>
#include <QPainterPath>
#include <QWidget>

namespace parlune::app {

// The product's marks, drawn from paths so they are sharp at any scale: the logo (a navy square
// with a serif "P" and a coral corner) and the 18 by 18 tray icon (a text line being rewritten).
class ParluneIcon {
public:
    static void paintLogo(QPainter& painter, const QRectF& frame);
    // The tray icon's outline in an 18 by 18 box.
    static QPainterPath menuBarPath();
    // The tray icon at 1x and 2x, in `ink`.
    static QIcon menuBarImage(const QColor& ink);
    // The application icon (logo) at the usual sizes.
    static QIcon applicationIcon();
};

class LogoView : public QWidget {
public:
    explicit LogoView(int size, QWidget* parent = nullptr);

protected:
    void paintEvent(QPaintEvent* event) override;
};

} // namespace parlune::app
