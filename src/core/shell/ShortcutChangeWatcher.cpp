#include "core/shell/ShortcutChangeWatcher.h"

#include "core/settings/SettingsStore.h"

namespace parlune {

ShortcutChangeWatcher::ShortcutChangeWatcher(SettingsStore& settings, std::function<void()> onChange,
                                             std::chrono::milliseconds quietPeriod)
    : settings_(settings), onChange_(std::move(onChange)), lastSeen_(settings.selectedHotKey()) {
    quietPeriod_.setSingleShot(true);
    quietPeriod_.setInterval(quietPeriod);
    QObject::connect(&quietPeriod_, &QTimer::timeout, [this] { onChange_(); });
    subscription_ = settings_.changed.connect([this](SettingsStore::Field field) {
        switch (field) {
        case SettingsStore::Field::hotKeyKeyCode:
        case SettingsStore::Field::hotKeyModifiers:
        case SettingsStore::Field::hotKeyDisplayName:
            fieldChanged();
            break;
        default:
            break;
        }
    });
}

void ShortcutChangeWatcher::fieldChanged() {
    HotKeyShortcut current = settings_.selectedHotKey();
    if (current == lastSeen_) {
        return;
    }
    lastSeen_ = std::move(current);
    quietPeriod_.start(); // restarts a running period
}

} // namespace parlune
