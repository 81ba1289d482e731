#pragma once

#include "core/hotkeys/HotKeyShortcut.h"
#include "core/hotkeys/KeyEvent.h"

#include <QFrame>

#include <functional>
#include <optional>

class QKeyEvent;
class QLabel;

namespace parlune::app {

// The settings window's second-key box: click it, press a key, and the shortcut becomes Option
// (Alt) plus that key, whatever other modifiers were held.
class OptionKeyRecorderView : public QFrame {
public:
    using OnShortcut = std::function<void(const HotKeyShortcut&)>;

    explicit OptionKeyRecorderView(QWidget* parent = nullptr);

    // Called on creation and on every update of the window; an empty name shows "Space".
    void setKeyName(const QString& keyName);
    void setOnShortcut(OnShortcut onShortcut) { onShortcut_ = std::move(onShortcut); }

    bool isRecording() const { return recording_; }
    QString labelText() const;
    const QString& currentKeyName() const { return currentKeyName_; }

    // What the recorder takes from a key press: the macOS key code, the key's characters without
    // modifiers, and the four modifier flags. Absent for keys the stored form cannot name.
    static std::optional<KeyEvent> keyEventFrom(const QKeyEvent& event);

protected:
    void mousePressEvent(QMouseEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;

private:
    void showIdle();
    void setAccent(bool recording);

    QLabel* label_;
    QString currentKeyName_ = QStringLiteral("Space");
    bool recording_ = false;
    OnShortcut onShortcut_;
};

} // namespace parlune::app
