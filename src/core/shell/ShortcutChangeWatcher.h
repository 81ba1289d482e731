#pragma once

#include "core/async/ChangeSignal.h"
#include "core/hotkeys/HotKeyShortcut.h"

#include <QTimer>

#include <chrono>
#include <functional>

namespace parlune {

class SettingsStore;

// Tells its owner when the stored shortcut has settled on a new value. The key code, modifiers and
// display name are one value: saving a shortcut writes them one by one, and the quiet period turns
// those writes into one call. A value equal to the last one seen (the one at construction first)
// is no change. Main thread only.
class ShortcutChangeWatcher {
public:
    static constexpr std::chrono::milliseconds defaultQuietPeriod{80};

    // The settings store must outlive the watcher.
    ShortcutChangeWatcher(SettingsStore& settings, std::function<void()> onChange,
                          std::chrono::milliseconds quietPeriod = defaultQuietPeriod);
    ShortcutChangeWatcher(const ShortcutChangeWatcher&) = delete;
    ShortcutChangeWatcher& operator=(const ShortcutChangeWatcher&) = delete;

private:
    void fieldChanged();

    SettingsStore& settings_;
    std::function<void()> onChange_;
    HotKeyShortcut lastSeen_;
    QTimer quietPeriod_;
    Subscription subscription_;
};

} // namespace parlune
