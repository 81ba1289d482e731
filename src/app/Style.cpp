#include "app/Style.h"

#include <QAbstractButton>
#include <QFrame>

namespace parlune::app {

namespace {

QString css(const QColor& colour, double opacity = 1.0) {
    return QStringLiteral("rgba(%1, %2, %3, %4)")
        .arg(colour.red())
        .arg(colour.green())
        .arg(colour.blue())
        .arg(opacity, 0, 'f', 2);
}

const char* propertyValue(Style::ButtonStyle style) {
    switch (style) {
    case Style::ButtonStyle::primary:
        return "primary";
    case Style::ButtonStyle::secondary:
        return "secondary";
    case Style::ButtonStyle::disabled:
        return "disabled";
    case Style::ButtonStyle::text:
        return "text";
    }
    return "secondary";
}

} // namespace

QFont Style::serif(int pixelSize, bool bold) {
    QFont font(QStringLiteral("Georgia"));
    font.setStyleHint(QFont::Serif, QFont::PreferQuality);
    font.setFamilies({QStringLiteral("Georgia"), QStringLiteral("Gelasio"), QStringLiteral("DejaVu Serif"),
                      QStringLiteral("Liberation Serif"), QStringLiteral("serif")});
    font.setPixelSize(pixelSize);
    font.setBold(bold);
    return font;
}

QFont Style::system(int pixelSize, QFont::Weight weight) {
    QFont font;
    font.setPixelSize(pixelSize);
    font.setWeight(weight);
    return font;
}

QString Style::styleSheet() {
    const QString navy = css(Palette::navy());
    // Pressed and disabled states fade the whole button, which a style sheet can only do through
    // the colours' opacity.
    return QStringLiteral(R"(
QWidget#settingsRoot, QScrollArea, QScrollArea > QWidget > QWidget { background: %1; }
QLabel { color: %2; }
QLabel[role="detail"] { color: %3; }
QFrame[panel="true"] { background: %4; border: 2px solid %2; }
QFrame[panel="true"] QLabel, QFrame[panel="true"] QCheckBox { border: none; background: transparent; }
QPlainTextEdit, QLineEdit, QComboBox { background: %5; color: %2; border: 2px solid %2; padding: 4px; }
QPushButton { font-weight: 900; border: 2px solid %2; padding: 6px 14px; }
QPushButton[buttonStyle="primary"] { background: %6; color: %2; }
QPushButton[buttonStyle="primary"]:pressed { background: %7; }
QPushButton[buttonStyle="primary"]:disabled { background: %8; color: %9; border-color: %9; }
QPushButton[buttonStyle="secondary"] { background: %10; color: %2; }
QPushButton[buttonStyle="secondary"]:pressed { background: %11; color: %12; }
QPushButton[buttonStyle="secondary"]:disabled { color: %13; border-color: %13; }
QPushButton[buttonStyle="disabled"] { background: %10; color: %13; border-color: %13; }
QPushButton[buttonStyle="text"] { background: transparent; border: none; font-size: 11px; padding: 6px 8px; color: %2; }
QPushButton[buttonStyle="text"]:pressed, QPushButton[buttonStyle="text"]:disabled { color: %9; }
QPushButton:focus { outline: none; border-color: %14; }
QCheckBox { color: %2; spacing: 8px; }
QCheckBox::indicator { width: 12px; height: 12px; border: 2px solid %2; background: %5; }
QCheckBox::indicator:checked { background: %14; }
QCheckBox:focus { outline: none; }
)")
        .arg(css(Palette::warmPaper()), navy, css(Palette::steel()), css(Palette::surface()),
             css(Palette::fieldBackground()), css(Palette::yellow()), css(Palette::yellow(), 0.45),
             css(Palette::yellow(), 0.45))
        .arg(css(Palette::navy(), 0.45), css(Palette::vanilla()), css(Palette::vanilla(), 0.68),
             css(Palette::navy(), 0.68), css(Palette::navy(), 0.6), css(Palette::coral()));
}

void Style::apply(QAbstractButton& button, ButtonStyle style) {
    button.setProperty("buttonStyle", QString::fromLatin1(propertyValue(style)));
    button.setCursor(Qt::PointingHandCursor);
}

void Style::makePanel(QFrame& frame) {
    frame.setProperty("panel", true);
    frame.setFrameShape(QFrame::NoFrame);
    frame.setContentsMargins(16, 16, 16, 16);
}

} // namespace parlune::app
