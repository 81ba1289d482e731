#include "core/shell/ShortcutRegistration.h"

#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/hotkeys/HotKeyError.h"
#include "core/platform/PlatformTerms.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"

namespace parlune {

namespace {

const QString registrationStage = QStringLiteral("hotkey_registration");
const QString conflictCategory = QStringLiteral("registration_conflict");
const QString refusalCategory = QStringLiteral("registration_refused");

QString category(std::int32_t status) {
    return status == PlatformTerms::current().hotKeyTakenStatus ? conflictCategory : refusalCategory;
}

} // namespace

ShortcutRegistration::ShortcutRegistration(HotKeyManager& hotKeys, SettingsStore& settings,
                                           AppReadiness& readiness, DiagnosticsLogger& diagnostics,
                                           std::function<void(const QString&)> showStatus,
                                           HotKeyManager::Action onPress)
    : hotKeys_(hotKeys), settings_(settings), readiness_(readiness), diagnostics_(diagnostics),
      showStatus_(std::move(showStatus)), onPress_(std::move(onPress)) {}

std::optional<std::int32_t> ShortcutRegistration::tryRegister(const HotKeyShortcut& shortcut) {
    try {
        hotKeys_.registerShortcut(shortcut, onPress_);
        return std::nullopt;
    } catch (const HotKeyError& error) {
        return error.status();
    }
}

QString ShortcutRegistration::refusalSentence(const HotKeyShortcut& shortcut, std::int32_t status) {
    const PlatformTerms& terms = PlatformTerms::current();
    if (status == terms.hotKeyTakenStatus) {
        return shortcut.displayName + QStringLiteral(" is already in use.");
    }
    return shortcut.displayName + QStringLiteral(" could not be registered: ") + terms.hotKeyFailure(status) +
           u'.';
}

void ShortcutRegistration::registerHotKey(bool reportFailure, bool force) {
    const HotKeyShortcut selected = settings_.selectedHotKey();
    if (!force && registered_ == selected && readiness_.hotKeyReady()) {
        return;
    }

    const std::optional<std::int32_t> refused = tryRegister(selected);
    if (!refused) {
        registered_ = selected;
        readiness_.setHotKeyReady(true);
        readiness_.setHotKeyRegistrationError(std::nullopt);
        return;
    }

    // A failed attempt leaves nothing registered, so the previous shortcut must be grabbed again.
    if (registered_ && *registered_ != selected) {
        const HotKeyShortcut previous = *registered_;
        if (!tryRegister(previous)) {
            readiness_.setHotKeyReady(true);
            readiness_.setHotKeyRegistrationError(std::nullopt);
            settings_.saveHotKey(previous);
            diagnostics_.logEvent(registrationStage, QStringLiteral("reverted_to_previous"),
                                  category(*refused));
            if (reportFailure) {
                showStatus_(refusalSentence(selected, *refused) + u' ' + previous.displayName +
                            QStringLiteral(" remains active."));
            }
            return;
        }
    }

    reportRefusal(selected, *refused, reportFailure);
}

void ShortcutRegistration::adoptDesktopChoice(const HotKeyShortcut& chosen) {
    const HotKeyShortcut stored = settings_.selectedHotKey();
    if (registered_) {
        registered_ = chosen;
        readiness_.setHotKeyReady(true);
        readiness_.setHotKeyRegistrationError(std::nullopt);
    }
    if (stored.keyCode == chosen.keyCode && stored.carbonModifiers == chosen.carbonModifiers) {
        if (!registered_) {
            // Refused before, bound now: presses are only delivered to a registration.
            registerHotKey(false, true);
        }
        return;
    }
    settings_.saveHotKey(chosen);
    diagnostics_.logEvent(QStringLiteral("hotkey_change"), QStringLiteral("chosen_in_desktop"));
}

void ShortcutRegistration::refusedAfterRegistering(std::int32_t status) {
    if (registered_) {
        // The desktop no longer delivers it: unregistered so that a retry starts clean.
        hotKeys_.unregister();
        const HotKeyShortcut refused = *registered_; // reportRefusal clears registered_
        reportRefusal(refused, status, true);
    }
}

void ShortcutRegistration::reportRefusal(const HotKeyShortcut& shortcut, std::int32_t status, bool show) {
    registered_.reset();
    const QString message =
        refusalSentence(shortcut, status) + QStringLiteral(" Choose another shortcut in Parlune Settings.");
    readiness_.setHotKeyReady(false);
    readiness_.setHotKeyRegistrationError(message);
    diagnostics_.logEvent(registrationStage, QStringLiteral("failed"), category(status));
    if (show) {
        showStatus_(message);
    }
}

} // namespace parlune
