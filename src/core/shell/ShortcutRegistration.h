#pragma once

#include "core/hotkeys/HotKeyManager.h"
#include "core/hotkeys/HotKeyShortcut.h"

#include <QString>

#include <functional>
#include <optional>

namespace parlune {

class AppReadiness;
class DiagnosticsLogger;
class SettingsStore;

// Keeps the stored shortcut registered as the global hotkey. A shortcut another program holds never
// stays in the settings when the one registered before can be restored: the settings are written
// back to it, so the settings window shows what really works. Every refusal counts as a conflict,
// whatever status the desktop gave. Main thread only.
class ShortcutRegistration {
public:
    // Everything referenced must outlive this object. `showStatus` tells the user about a conflict;
    // `onPress` runs for every press of the registered shortcut.
    ShortcutRegistration(HotKeyManager& hotKeys, SettingsStore& settings, AppReadiness& readiness,
                         DiagnosticsLogger& diagnostics, std::function<void(const QString&)> showStatus,
                         HotKeyManager::Action onPress);
    ShortcutRegistration(const ShortcutRegistration&) = delete;
    ShortcutRegistration& operator=(const ShortcutRegistration&) = delete;

    // Registers the stored shortcut. Unless `force`, a shortcut already registered and ready is left
    // alone. With `reportFailure`, a conflict is shown through `showStatus`.
    void registerHotKey(bool reportFailure, bool force);

    // A registration that succeeded was refused later (a desktop that asks the user, or gives the
    // key to another program): the same sentence as a conflict, always shown.
    void refusedAfterRegistering();

    // The shortcut registered now; none after a failure with nothing to fall back to.
    std::optional<HotKeyShortcut> registeredHotKey() const { return registered_; }

private:
    bool tryRegister(const HotKeyShortcut& shortcut);
    void reportConflict(const HotKeyShortcut& shortcut, bool show);

    HotKeyManager& hotKeys_;
    SettingsStore& settings_;
    AppReadiness& readiness_;
    DiagnosticsLogger& diagnostics_;
    std::function<void(const QString&)> showStatus_;
    HotKeyManager::Action onPress_;
    std::optional<HotKeyShortcut> registered_;
};

} // namespace parlune
