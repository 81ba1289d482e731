#include "app/CompactErrorPresenter.h"

#include "app/Style.h"

#include <QCursor>
#include <QGuiApplication>
#include <QLabel>
#include <QPainter>
#include <QScreen>
#include <QVBoxLayout>

namespace parlune::app {

namespace {

constexpr int screenInset = 18;
constexpr int maximumLabelWidth = 330;
constexpr int maximumLines = 3;

// Translucent rounded background with a hairline border, behind the label.
class PanelWidget : public QWidget {
public:
    explicit PanelWidget(const QString& message) {
        setWindowFlags(Qt::ToolTip | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint |
                       Qt::WindowDoesNotAcceptFocus | Qt::WindowTransparentForInput);
        setAttribute(Qt::WA_ShowWithoutActivating);
        setAttribute(Qt::WA_TranslucentBackground);
        setAttribute(Qt::WA_TransparentForMouseEvents);
        setAttribute(Qt::WA_DeleteOnClose);
        setFocusPolicy(Qt::NoFocus);
        setAccessibleName(QStringLiteral("Parlune error"));
        setAccessibleDescription(message);

        auto* label = new QLabel(message, this);
        label->setWordWrap(true);
        label->setFont(Style::system(13));
        label->setStyleSheet(QStringLiteral("color: palette(window-text); background: transparent;"));
        label->setAccessibleName(QStringLiteral("Parlune error"));
        const QFontMetrics metrics(label->font());
        // Word wrapping alone would break short messages early; a line of text is as wide as it
        // needs, up to the limit.
        label->setFixedWidth(std::min(maximumLabelWidth, metrics.horizontalAdvance(message) + 2));
        label->setMaximumHeight(metrics.lineSpacing() * maximumLines + 2);
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(14, 11, 14, 11);
        layout->addWidget(label);
        adjustSize();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QColor background = palette().color(QPalette::Window);
        background.setAlphaF(0.94f);
        QColor border = palette().color(QPalette::Mid);
        painter.setPen(QPen(border, 1));
        painter.setBrush(background);
        painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 9, 9);
    }
};

QScreen* screenUnderPointer() {
    const QPoint pointer = QCursor::pos();
    for (QScreen* screen : QGuiApplication::screens()) {
        if (screen->geometry().contains(pointer)) {
            return screen;
        }
    }
    return QGuiApplication::primaryScreen();
}

} // namespace

CompactErrorPresenter::CompactErrorPresenter() {
    hideTimer_.setSingleShot(true);
    hideTimer_.setInterval(visibleMilliseconds);
    QObject::connect(&hideTimer_, &QTimer::timeout, [this] { close(); });
}

CompactErrorPresenter::~CompactErrorPresenter() {
    close();
}

void CompactErrorPresenter::show(const QString& message) {
    close();
    auto* panel = new PanelWidget(message);
    if (QScreen* screen = screenUnderPointer()) {
        const QRect area = screen->availableGeometry();
        panel->move(area.right() - screenInset - panel->width() + 1, area.top() + screenInset);
    }
    panel->show();
    panel_ = panel;
    hideTimer_.start();
}

void CompactErrorPresenter::close() {
    hideTimer_.stop();
    if (panel_) {
        panel_->close();
        panel_ = nullptr;
    }
}

} // namespace parlune::app
