#pragma once

#include "core/hotkeys/HotKeyManager.h"
#include "core/hotkeys/HotKeyShortcut.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <optional>

namespace parlune {

class AppReadiness;
class DiagnosticsLogger;
class SettingsStore;

// Keeps the stored shortcut registered as the global hotkey. A shortcut another program holds never
// stays in the settings when the one registered before can be restored: the settings are written
// back to it, so the settings window shows what really works. A key another program holds is "already
// in use"; any other refusal is said in the session's words (PlatformTerms), so the user reads what
// actually failed. Main thread only.
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

    // A registration that succeeded was refused later with `status` (a desktop that asks the user,
    // or gives the key to another program): the same sentence as a refusal at once, always shown.
    void refusedAfterRegistering(std::int32_t status);

    // The desktop bound `chosen` to our shortcut (the user picked it in the desktop's own settings):
    // it is stored, so the settings window shows it, and only when it differs from the stored one;
    // while registered it counts as what is registered, so storing it binds nothing again.
    void adoptDesktopChoice(const HotKeyShortcut& chosen);

    // The shortcut registered now; none after a failure with nothing to fall back to.
    std::optional<HotKeyShortcut> registeredHotKey() const { return registered_; }

private:
    // The status of the refusal; nullopt once registered.
    std::optional<std::int32_t> tryRegister(const HotKeyShortcut& shortcut);
    void reportRefusal(const HotKeyShortcut& shortcut, std::int32_t status, bool show);
    // "Alt+Space is already in use." or "Alt+Space could not be registered: <reason>."
    static QString refusalSentence(const HotKeyShortcut& shortcut, std::int32_t status);

    HotKeyManager& hotKeys_;
    SettingsStore& settings_;
    AppReadiness& readiness_;
    DiagnosticsLogger& diagnostics_;
    std::function<void(const QString&)> showStatus_;
    HotKeyManager::Action onPress_;
    std::optional<HotKeyShortcut> registered_;
};

} // namespace parlune
