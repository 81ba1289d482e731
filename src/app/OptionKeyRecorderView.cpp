#include "app/OptionKeyRecorderView.h"

#include "app/Style.h"
#include "core/hotkeys/HotKeyFormatter.h"
#include "core/platform/PlatformTerms.h"
#include "platform/x11/X11KeyTable.h"

#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>

namespace parlune::app {

namespace {

constexpr std::uint32_t firstUnicodeKeysym = 0x01000000;

// The character an XKB keysym types: Latin-1 keysyms are their code points, and keysyms above
// 0x01000000 carry one directly. Keys that type nothing (F1, arrows) give none.
QString charactersOf(std::uint32_t keysym) {
    if ((keysym >= 0x20 && keysym <= 0x7e) || (keysym >= 0xa0 && keysym <= 0xff)) {
        return QString(QChar(static_cast<char16_t>(keysym))).toLower();
    }
    if (keysym > firstUnicodeKeysym && keysym <= firstUnicodeKeysym + 0x10ffff) {
        const char32_t codePoint = keysym - firstUnicodeKeysym;
        return QString::fromUcs4(&codePoint, 1).toLower();
    }
    return {};
}

std::uint32_t modifierFlagsOf(Qt::KeyboardModifiers modifiers) {
    std::uint32_t flags = 0;
    if (modifiers & Qt::ShiftModifier) {
        flags |= modifier_flag::shift;
    }
    if (modifiers & Qt::ControlModifier) {
        flags |= modifier_flag::control;
    }
    if (modifiers & Qt::AltModifier) {
        flags |= modifier_flag::option;
    }
    if (modifiers & Qt::MetaModifier) {
        flags |= modifier_flag::command;
    }
    return flags;
}

} // namespace

OptionKeyRecorderView::OptionKeyRecorderView(QWidget* parent) : QFrame(parent), label_(new QLabel(this)) {
    setFocusPolicy(Qt::StrongFocus);
    setMinimumSize(96, 36);
    setAccessibleName(QStringLiteral("Second key of the shortcut"));
    label_->setAlignment(Qt::AlignCenter);
    QFont font = Style::system(14, QFont::Bold);
    label_->setFont(font);
    label_->setTextInteractionFlags(Qt::NoTextInteraction);
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(10, 4, 10, 4);
    layout->addWidget(label_);
    setAccent(false);
    showIdle();
}

void OptionKeyRecorderView::setKeyName(const QString& keyName) {
    currentKeyName_ = keyName.isEmpty() ? QStringLiteral("Space") : keyName;
    if (!recording_) {
        showIdle();
    }
}

QString OptionKeyRecorderView::labelText() const {
    return label_->text();
}

void OptionKeyRecorderView::showIdle() {
    label_->setText(fontMetrics().elidedText(currentKeyName_, Qt::ElideRight, std::max(40, width() - 20)));
    label_->setToolTip(currentKeyName_);
}

void OptionKeyRecorderView::setAccent(bool recording) {
    const QColor ink = recording ? Palette::coral() : Palette::navy();
    setStyleSheet(QStringLiteral("OptionKeyRecorderView, QFrame { background: %1; border: 2px solid %2; }"
                                 "QLabel { border: none; color: %2; }")
                      .arg(Palette::vanilla().name(), ink.name()));
}

void OptionKeyRecorderView::mousePressEvent(QMouseEvent*) {
    recording_ = true;
    setFocus(Qt::MouseFocusReason);
    label_->setText(QStringLiteral("PRESS KEY"));
    setAccent(true);
}

void OptionKeyRecorderView::keyPressEvent(QKeyEvent* event) {
    if (!recording_) {
        // Space or Return on the focused box starts recording, so the keyboard alone suffices.
        if (event->key() == Qt::Key_Space || event->key() == Qt::Key_Return ||
            event->key() == Qt::Key_Enter) {
            mousePressEvent(nullptr);
            return;
        }
        QFrame::keyPressEvent(event);
        return;
    }
    if (event->key() == Qt::Key_Alt || event->key() == Qt::Key_Control || event->key() == Qt::Key_Shift ||
        event->key() == Qt::Key_Meta || event->key() == Qt::Key_Super_L || event->key() == Qt::Key_Super_R ||
        event->key() == Qt::Key_AltGr) {
        return; // a modifier alone is not a key yet
    }
    const std::optional<KeyEvent> keyEvent = keyEventFrom(*event);
    const std::optional<HotKeyShortcut> shortcut =
        keyEvent ? HotKeyFormatter::optionShortcut(*keyEvent) : std::nullopt;
    if (!shortcut) {
        label_->setText(QStringLiteral("Try again"));
        return;
    }
    currentKeyName_ = QString(shortcut->displayName).remove(PlatformTerms::current().optionPrefix());
    recording_ = false;
    setAccent(false);
    showIdle();
    if (onShortcut_) {
        onShortcut_(*shortcut);
    }
}

void OptionKeyRecorderView::focusOutEvent(QFocusEvent* event) {
    recording_ = false;
    setAccent(false);
    showIdle();
    QFrame::focusOutEvent(event);
}

std::optional<KeyEvent> OptionKeyRecorderView::keyEventFrom(const QKeyEvent& event) {
    const auto keysym = static_cast<std::uint32_t>(event.nativeVirtualKey());
    const std::optional<std::uint32_t> keyCode = x11::X11KeyTable::macKeyCodeFor(keysym);
    if (!keyCode) {
        return std::nullopt;
    }
    return KeyEvent{*keyCode, charactersOf(keysym), modifierFlagsOf(event.modifiers())};
}

} // namespace parlune::app
