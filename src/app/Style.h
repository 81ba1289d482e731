#pragma once

#include <QColor>
#include <QFont>
#include <QString>

class QAbstractButton;
class QFrame;

namespace parlune::app {

// The product's fixed colours (sRGB, opaque).
struct Palette {
    static QColor navy() { return QColor::fromRgbF(0.05f, 0.09f, 0.14f); }
    static QColor coral() { return QColor::fromRgbF(0.93f, 0.39f, 0.38f); }
    static QColor coralDark() { return QColor::fromRgbF(0.78f, 0.25f, 0.26f); }
    static QColor yellow() { return QColor::fromRgbF(0.99f, 0.85f, 0.57f); }
    static QColor vanilla() { return QColor::fromRgbF(1.0f, 0.99f, 0.96f); }
    static QColor warmPaper() { return QColor::fromRgbF(0.96f, 0.93f, 0.87f); }
    static QColor surface() { return QColor::fromRgbF(1.0f, 0.99f, 0.96f); }
    static QColor fieldBackground() { return QColor::fromRgbF(1.0f, 1.0f, 0.98f); }
    static QColor steel() { return QColor::fromRgbF(0.45f, 0.47f, 0.48f); }
};

// Type sizes are logical pixels: the design's points are the 1/72-inch units of a 72 dpi
// canvas, which a high-density screen scales just as Qt scales pixel sizes.
class Style {
public:
    enum class ButtonStyle { primary, secondary, disabled, text };

    // Georgia where installed, otherwise the desktop's serif face.
    static QFont serif(int pixelSize, bool bold = false);
    static QFont system(int pixelSize, QFont::Weight weight = QFont::Normal);

    // The application-wide style sheet: window and field colours, button styles, panels.
    static QString styleSheet();
    static void apply(QAbstractButton& button, ButtonStyle style);
    // A settings section: a filled panel with a solid outline and padded content.
    static void makePanel(QFrame& frame);
};

} // namespace parlune::app
