#pragma once

#include "core/async/WeakRef.h"
#include "core/platform/KeyboardEvents.h"
#include "platform/linux/portal/PortalRequest.h"

#include <QCoro/QCoroTask>
#include <QDBusConnection>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

namespace parlune {
class UserDefaults;
class Workspace;
} // namespace parlune

namespace parlune::portal {

// Synthetic Control+key through the desktop's RemoteDesktop portal, for Wayland sessions where a
// client may not type into another. The portal grants a keyboard to a session once the user
// consents (KDE 5.27 asks nothing of applications outside a sandbox and shows a notification);
// from portal version 2 the consent is kept with a restore token in the settings, so it is asked
// once, not once per run. The session is opened by the first chord and reopened if the desktop
// ends it.
//
// Keys the user still holds would spoil the chord (a held Alt turns Control+C into
// Control+Alt+C). The portal tells nothing of the keyboard's state; what is known is the shortcut's
// own press and release (from the shortcuts portal), so the chord waits, cancellably and for at most
// `releaseWaitSeconds`, until the shortcut is let go; a hold waited out in vain is not waited for
// again until it ends. Chords go only to the application in front, and only if it is the target.
class PortalRemoteDesktopKeyboard final : public QObject, public KeyboardEvents {
    Q_OBJECT
public:
    // The X keysym (also XKB's) for a stored key code; the platform's key table.
    using KeysymLookup = std::function<std::optional<std::uint32_t>(std::uint32_t macKeyCode)>;
    // Whether the user still holds the shortcut; may be empty when nothing reports it.
    using ShortcutHeld = std::function<bool()>;

    static constexpr double releaseWaitSeconds = 2.0;
    // Settings key of the portal's restore token (the user's consent, kept by the desktop).
    static constexpr const char* restoreTokenKey = "remoteDesktopRestoreToken";

    enum class Availability {
        available,
        absent, // no RemoteDesktop portal, or one that offers no keyboard
    };

    PortalRemoteDesktopKeyboard(QDBusConnection bus, Workspace& workspace, UserDefaults& settings,
                                KeysymLookup keysymFor, ShortcutHeld shortcutHeld);
    ~PortalRemoteDesktopKeyboard() override;

    // Asks whether the desktop offers a keyboard through the portal; never blocks the event loop.
    QCoro::Task<Availability> probe();
    // The same before any keyboard exists; a portal without a keyboard is absent as "no_keyboard".
    static QCoro::Task<PortalProbe> keyboardOffer(QDBusConnection bus);
    // Opens the session now (the first chord does it otherwise): the moment consent is asked for.
    QCoro::Task<bool> start();
    bool isStarted() const { return !sessionHandle_.isEmpty(); }
    // The portal interface's version, known after probe(); 0 before.
    std::uint32_t portalVersion() const { return version_; }

    QCoro::Task<bool> sendCommandKey(std::uint16_t keyCode, ProcessId target, std::stop_token token) override;
    QCoro::Task<bool> sendChord(KeyChord chord, ProcessId target, std::stop_token token) override;

Q_SIGNALS:
    void startFinished(QPrivateSignal);

private Q_SLOTS:
    void onSessionClosed(const QVariantMap& details);

private:
    QCoro::Task<bool> openSession();
    QCoro::Task<bool> waitForShortcutRelease(std::stop_token token);
    QCoro::Task<bool> sendKeysyms(const std::vector<std::pair<std::uint32_t, bool>>& events);
    void forgetSession();

    QDBusConnection bus_;
    Workspace& workspace_;
    UserDefaults& settings_;
    KeysymLookup keysymFor_;
    ShortcutHeld shortcutHeld_;
    std::uint32_t version_ = 0;
    QString sessionHandle_;
    bool holdWaitedOut_ = false;
    bool starting_ = false;
    LifetimeToken lifetime_;
};

} // namespace parlune::portal
