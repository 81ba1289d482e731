#include "app/ParluneIcon.h"

#include "app/Style.h"

#include <QPainter>
#include <QPixmap>

namespace parlune::app {

void ParluneIcon::paintLogo(QPainter& painter, const QRectF& frame) {
    painter.save();
    painter.setRenderHint(QPainter::Antialiasing);
    const qreal side = std::min(frame.width(), frame.height());
    const QRectF square(frame.center().x() - side / 2, frame.center().y() - side / 2, side, side);
    painter.fillRect(square, Palette::navy());
    QPainterPath corner;
    corner.moveTo(square.right() - side * 0.34, square.top());
    corner.lineTo(square.right(), square.top());
    corner.lineTo(square.right(), square.top() + side * 0.34);
    corner.closeSubpath();
    painter.fillPath(corner, Palette::coral());
    painter.setPen(Palette::vanilla());
    painter.setFont(Style::serif(std::max(1, static_cast<int>(side / 2)), true));
    painter.drawText(square, Qt::AlignCenter, QStringLiteral("P"));
    painter.restore();
}

QPainterPath ParluneIcon::menuBarPath() {
    // Two lines of text, the second being rewritten by a pen nib.
    QPainterPath path;
    path.addRoundedRect(QRectF(2, 3.5, 14, 2), 1, 1);
    path.addRoundedRect(QRectF(2, 8, 7, 2), 1, 1);
    path.addRoundedRect(QRectF(2, 12.5, 5, 2), 1, 1);
    QPainterPath nib;
    nib.moveTo(16.5, 8.5);
    nib.lineTo(11.5, 13.5);
    nib.lineTo(10, 16);
    nib.lineTo(12.5, 14.5);
    nib.lineTo(17.5, 9.5);
    nib.closeSubpath();
    return path.united(nib);
}

QIcon ParluneIcon::menuBarImage(const QColor& ink) {
    QIcon icon;
    for (const int scale : {1, 2}) {
        QPixmap pixmap(18 * scale, 18 * scale);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.scale(scale, scale);
        painter.fillPath(menuBarPath(), ink);
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

QIcon ParluneIcon::applicationIcon() {
    QIcon icon;
    for (const int size : {16, 24, 32, 48, 64, 128, 256}) {
        QPixmap pixmap(size, size);
        pixmap.fill(Qt::transparent);
        QPainter painter(&pixmap);
        paintLogo(painter, QRectF(0, 0, size, size));
        painter.end();
        icon.addPixmap(pixmap);
    }
    return icon;
}

LogoView::LogoView(int size, QWidget* parent) : QWidget(parent) {
    setFixedSize(size, size);
    setAccessibleName(QStringLiteral("Parlune logo"));
}

void LogoView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    ParluneIcon::paintLogo(painter, QRectF(rect()));
}

} // namespace parlune::app
