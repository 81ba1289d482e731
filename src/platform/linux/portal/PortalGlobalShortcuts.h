#pragma once

#include "core/async/TaskHandle.h"
#include "core/async/WeakRef.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "core/platform/HotKeyService.h"

#include <QCoro/QCoroTask>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusPendingCall>
#include <QObject>
#include <QString>
#include <QVariantMap>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>

namespace parlune::portal {

// The global shortcut through the desktop's GlobalShortcuts portal, for Wayland sessions where no
// client may grab keys. The portal binds shortcuts to a session: the stored shortcut is offered as
// the preferred trigger of one shortcut, and the desktop decides which key it really gets (KDE
// keeps it in System Settings → Shortcuts, where the user may change it).
//
// HotKeyService is synchronous, a portal is not: registerHotKey answers at once for what can be
// known at once (a key without a name, no portal) and binds in the background; a binding the
// desktop then refuses reports through `setRefusalHandler`. At start, a key the user already gave
// the shortcut in the desktop's settings is kept (and reported), whatever the stored shortcut
// says. Statuses reuse the X protocol's numbers where the meaning is the same (PlatformTerms'
// Wayland table words them): 10 (BadAccess) when the desktop gave the key to something else, 2
// (BadValue) for a key that has no name, 17 (BadImplementation) when the portal failed; 11 when the
// user declined, 12 when the desktop keeps another key for the shortcut and 18 when it ended the
// session.
class PortalGlobalShortcuts final : public QObject, public HotKeyService {
    Q_OBJECT
public:
    // The X keysym (also XKB's) for a stored key code; the platform's key table.
    using KeysymLookup = std::function<std::optional<std::uint32_t>(std::uint32_t macKeyCode)>;
    // The reverse: the stored key code of an X keysym.
    using KeyCodeLookup = std::function<std::optional<std::uint32_t>(std::uint32_t keysym)>;

    static constexpr std::int32_t noSuchKeyStatus = 2;
    static constexpr std::int32_t refusedStatus = 10;
    static constexpr std::int32_t declinedStatus = 11;
    static constexpr std::int32_t keptOtherKeyStatus = 12;
    static constexpr std::int32_t portalFailedStatus = 17;
    static constexpr std::int32_t sessionEndedStatus = 18;

    // The shortcut's id within the session, stable so the desktop remembers the user's choice.
    static constexpr const char* shortcutId = "rewrite-selection";

    enum class Availability {
        available,
        absent, // the desktop offers no GlobalShortcuts portal: bind a command instead
    };

    PortalGlobalShortcuts(QDBusConnection bus, KeysymLookup keysymFor, QString description);
    ~PortalGlobalShortcuts() override;

    // Asks whether the desktop offers the portal; call (and await) before registering. The session
    // itself is opened by the first registration. Never blocks the event loop.
    QCoro::Task<Availability> probe();
    bool isAvailable() const { return available_; }
    // Why probe() found the portal absent (PortalProbe's word); empty while it is available.
    const QString& absence() const { return absence_; }
    bool isOpen() const { return !sessionHandle_.isEmpty(); }

    // Runs on the main thread when a registration answered with success is refused afterwards.
    void setRefusalHandler(std::function<void(std::int32_t status)> handler);
    // Runs when the desktop reports the key it bound (after binding, or when the user changes it in
    // the desktop's settings); the text is the desktop's own ("Alt+Space").
    void setTriggerChangedHandler(std::function<void(const QString& trigger)> handler);
    // The desktop's description of the key bound now; empty while none is.
    QString boundTrigger() const { return boundTrigger_; }
    // True from a press until the desktop reports the release; a desktop that reports none leaves
    // it true after the first press.
    bool isHeld() const { return held_; }
    // True while a binding has been asked for and not yet answered.
    bool isBinding() const { return pendingBindings_ > 0; }

    // The portal's form of a shortcut ("ALT+space"); nullopt for a key without a name.
    static std::optional<QString> triggerFor(std::uint32_t keysym, std::uint32_t carbonModifiers);
    // Whether the desktop's description ("Alt+Space", "Ctrl+Shift+Esc") names the same chord as a
    // portal trigger; a desktop that describes keys in its own words compares unequal.
    static bool describesTrigger(const QString& description, const QString& trigger);
    // The desktop's description of a key ("Ctrl+Shift+Esc"; of several, the first) as a stored
    // shortcut named in this platform's words; nullopt without a modifier or for a key `keyCodeFor`
    // does not know.
    static std::optional<HotKeyShortcut> shortcutFor(const QString& description,
                                                     const KeyCodeLookup& keyCodeFor);

    Result installHandler(Handler handler) override;
    Result registerHotKey(std::uint32_t keyCode, std::uint32_t modifiers,
                          HotKeyIdentifier identifier) override;
    void unregisterHotKey(Handle hotKey) override;
    void removeHandler(Handle handler) override;

Q_SIGNALS:
    void bindingFinished(QPrivateSignal);

private Q_SLOTS:
    void onActivated(const QDBusObjectPath& session, const QString& id, qulonglong timestamp,
                     const QVariantMap& options);
    void onDeactivated(const QDBusObjectPath& session, const QString& id, qulonglong timestamp,
                       const QVariantMap& options);
    void onShortcutsChanged(const QDBusMessage& message);
    void onSessionClosed(const QVariantMap& details);

private:
    struct Registration {
        HotKeyIdentifier identifier;
        QString trigger;
    };

    QCoro::Task<void> bind(Handle handle, QString trigger);
    QCoro::Task<std::int32_t> bindTrigger(QString trigger);
    QCoro::Task<std::int32_t> keyGrantedByShortcutDaemon();
    QCoro::Task<bool> createSession(QString trigger);
    QDBusPendingCall closeSession();
    QCoro::Task<void> closeSessionBeforeReopening();
    void refuse(Handle handle, std::int32_t status);
    QVariant shortcutList(const QString& trigger) const;
    void noteBoundTrigger(const QVariantMap& results);
    void subscribeSession(bool on);

    QDBusConnection bus_;
    KeysymLookup keysymFor_;
    QString description_;
    QString sessionToken_;
    QString sessionHandle_;
    QString sessionTrigger_; // the trigger the open session was created with
    QString boundTrigger_;
    Handler handler_;
    Handle handlerHandle_ = 0;
    std::map<Handle, Registration> registrations_;
    Handle nextHandle_ = 1;
    bool available_ = false;
    QString absence_;
    bool hasBound_ = false; // a binding succeeded in this process
    bool held_ = false;
    bool backendReportsRelease_ = false;
    std::function<void(std::int32_t)> onRefused_;
    std::function<void(const QString&)> onTriggerChanged_;
    int pendingBindings_ = 0;
    bool bindInFlight_ = false;
    LifetimeToken lifetime_;
};

} // namespace parlune::portal
