#include "core/shell/ShortcutRegistration.h"

#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/hotkeys/HotKeyError.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"

namespace parlune {

namespace {

const QString registrationStage = QStringLiteral("hotkey_registration");
const QString conflictCategory = QStringLiteral("registration_conflict");

} // namespace

ShortcutRegistration::ShortcutRegistration(HotKeyManager& hotKeys, SettingsStore& settings,
                                           AppReadiness& readiness, DiagnosticsLogger& diagnostics,
                                           std::function<void(const QString&)> showStatus,
                                           HotKeyManager::Action onPress)
    : hotKeys_(hotKeys), settings_(settings), readiness_(readiness), diagnostics_(diagnostics),
      showStatus_(std::move(showStatus)), onPress_(std::move(onPress)) {}

bool ShortcutRegistration::tryRegister(const HotKeyShortcut& shortcut) {
    try {
        hotKeys_.registerShortcut(shortcut, onPress_);
        return true;
    } catch (const HotKeyError&) {
        return false;
    }
}

void ShortcutRegistration::registerHotKey(bool reportFailure, bool force) {
    const HotKeyShortcut selected = settings_.selectedHotKey();
    if (!force && registered_ == selected && readiness_.hotKeyReady()) {
        return;
    }

    if (tryRegister(selected)) {
        registered_ = selected;
        readiness_.setHotKeyReady(true);
        readiness_.setHotKeyRegistrationError(std::nullopt);
        return;
    }

    // A failed attempt leaves nothing registered, so the previous shortcut must be grabbed again.
    if (registered_ && *registered_ != selected) {
        const HotKeyShortcut previous = *registered_;
        if (tryRegister(previous)) {
            readiness_.setHotKeyReady(true);
            readiness_.setHotKeyRegistrationError(std::nullopt);
            settings_.saveHotKey(previous);
            diagnostics_.logEvent(registrationStage, QStringLiteral("reverted_to_previous"),
                                  conflictCategory);
            if (reportFailure) {
                showStatus_(selected.displayName + QStringLiteral(" is already in use. ") +
                            previous.displayName + QStringLiteral(" remains active."));
            }
            return;
        }
    }

    reportConflict(selected, reportFailure);
}

void ShortcutRegistration::refusedAfterRegistering() {
    if (registered_) {
        // The desktop no longer delivers it: unregistered so that a retry starts clean.
        hotKeys_.unregister();
        reportConflict(*registered_, true);
    }
}

void ShortcutRegistration::reportConflict(const HotKeyShortcut& shortcut, bool show) {
    registered_.reset();
    const QString message =
        shortcut.displayName +
        QStringLiteral(" is already in use. Choose another shortcut in Parlune Settings.");
    readiness_.setHotKeyReady(false);
    readiness_.setHotKeyRegistrationError(message);
    diagnostics_.logEvent(registrationStage, QStringLiteral("failed"), conflictCategory);
    if (show) {
        showStatus_(message);
    }
}

} // namespace parlune
