#include "platform/linux/portal/PortalGlobalShortcuts.h"

#include "core/hotkeys/HotKeyFormatter.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "platform/linux/portal/PortalRequest.h"

#include <QCoreApplication>
#include <QCoro/QCoroDBusPendingCall>
#include <QCoro/QCoroDBusPendingReply>
#include <QCoro/QCoroSignal>
#include <QDBusArgument>
#include <QDBusMetaType>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QSet>
#include <QThread>

#include <algorithm>

#include <xkbcommon/xkbcommon.h>

namespace parlune::portal {

namespace {

constexpr const char* shortcutsInterface = "org.freedesktop.portal.GlobalShortcuts";
constexpr const char* sessionInterface = "org.freedesktop.portal.Session";

// One entry of the portal's a(sa{sv}) shortcut lists.
struct ShortcutEntry {
    QString id;
    QVariantMap properties;
};
using ShortcutEntries = QList<ShortcutEntry>;

QDBusArgument& operator<<(QDBusArgument& argument, const ShortcutEntry& entry) {
    argument.beginStructure();
    argument << entry.id << entry.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, ShortcutEntry& entry) {
    argument.beginStructure();
    argument >> entry.id >> entry.properties;
    argument.endStructure();
    return argument;
}

void registerTypes() {
    static const bool registered = [] {
        qDBusRegisterMetaType<ShortcutEntry>();
        qDBusRegisterMetaType<ShortcutEntries>();
        return true;
    }();
    (void)registered;
}

// Our shortcut's trigger description in a list the portal sent; nullopt when it is not listed.
std::optional<QString> triggerDescriptionIn(const QVariant& list) {
    if (!list.canConvert<QDBusArgument>()) {
        return std::nullopt;
    }
    const ShortcutEntries entries = qdbus_cast<ShortcutEntries>(list.value<QDBusArgument>());
    for (const ShortcutEntry& entry : entries) {
        if (entry.id == QLatin1String(PortalGlobalShortcuts::shortcutId)) {
            return entry.properties.value(QStringLiteral("trigger_description")).toString();
        }
    }
    return std::nullopt;
}

// "Ctrl+Shift+Esc" → {"ctrl", "shift", "escape"}; the few names in which Qt's key descriptions and
// XKB's keysym names differ are mapped onto one spelling.
QSet<QString> chordWords(const QString& text) {
    static const QHash<QString, QString> synonyms = {
        {QStringLiteral("control"), QStringLiteral("ctrl")},
        {QStringLiteral("logo"), QStringLiteral("meta")},
        {QStringLiteral("super"), QStringLiteral("meta")},
        {QStringLiteral("esc"), QStringLiteral("escape")},
        {QStringLiteral("del"), QStringLiteral("delete")},
        {QStringLiteral("ins"), QStringLiteral("insert")},
        {QStringLiteral("pgup"), QStringLiteral("prior")},
        {QStringLiteral("pgdown"), QStringLiteral("next")},
        {QStringLiteral("enter"), QStringLiteral("return")},
        {QStringLiteral("backspace"), QStringLiteral("backspace")},
    };
    QSet<QString> words;
    // A trailing "+" is the plus key itself, not a separator.
    QString rest = text.trimmed();
    if (rest.endsWith(QStringLiteral("++"))) {
        rest.chop(2);
        words.insert(QStringLiteral("plus"));
    }
    for (const QString& part : rest.split(u'+', Qt::SkipEmptyParts)) {
        const QString word = part.trimmed().toLower();
        words.insert(synonyms.value(word, word));
    }
    return words;
}

} // namespace

PortalGlobalShortcuts::PortalGlobalShortcuts(QDBusConnection bus, KeysymLookup keysymFor, QString description)
    : bus_(std::move(bus)), keysymFor_(std::move(keysymFor)), description_(std::move(description)) {
    registerTypes();
    // The desktop files its shortcuts under the session's token (KDE: the component's name), so it
    // stays the same from one run to the next and the user's choice of key survives a restart.
    sessionToken_ = QStringLiteral("parlune");
}

PortalGlobalShortcuts::~PortalGlobalShortcuts() {
    closeSession();
}

void PortalGlobalShortcuts::setRefusalHandler(std::function<void(std::int32_t)> handler) {
    onRefused_ = std::move(handler);
}

void PortalGlobalShortcuts::setTriggerChangedHandler(std::function<void(const QString&)> handler) {
    onTriggerChanged_ = std::move(handler);
}

std::optional<QString> PortalGlobalShortcuts::triggerFor(std::uint32_t keysym,
                                                         std::uint32_t carbonModifiers) {
    char name[64] = {};
    if (keysym == 0 || xkb_keysym_get_name(keysym, name, sizeof name) <= 0) {
        return std::nullopt;
    }
    QString trigger;
    if (carbonModifiers & carbon_modifier::control) {
        trigger += QStringLiteral("CTRL+");
    }
    if (carbonModifiers & carbon_modifier::option) {
        trigger += QStringLiteral("ALT+");
    }
    if (carbonModifiers & carbon_modifier::shift) {
        trigger += QStringLiteral("SHIFT+");
    }
    if (carbonModifiers & carbon_modifier::command) {
        trigger += QStringLiteral("LOGO+");
    }
    return trigger + QString::fromLatin1(name);
}

bool PortalGlobalShortcuts::describesTrigger(const QString& description, const QString& trigger) {
    if (description.trimmed().isEmpty()) {
        return false;
    }
    // A desktop may list several keys ("Alt+Space, Meta+R"): any of them counts.
    const QSet<QString> wanted = chordWords(trigger);
    for (const QString& one : description.split(u',', Qt::SkipEmptyParts)) {
        if (chordWords(one) == wanted) {
            return true;
        }
    }
    return false;
}

std::optional<HotKeyShortcut> PortalGlobalShortcuts::shortcutFor(const QString& description,
                                                                 const KeyCodeLookup& keyCodeFor) {
    static const QHash<QString, std::uint32_t> modifiers = {
        {QStringLiteral("ctrl"), modifier_flag::control},
        {QStringLiteral("alt"), modifier_flag::option},
        {QStringLiteral("shift"), modifier_flag::shift},
        {QStringLiteral("meta"), modifier_flag::command},
    };
    const QString first = description.section(u',', 0, 0).trimmed();
    // The words are unordered; the key is the one that is not a modifier.
    std::uint32_t flags = 0;
    QString key;
    for (const QString& word : chordWords(first)) {
        if (const auto modifier = modifiers.constFind(word); modifier != modifiers.cend()) {
            flags |= *modifier;
        } else if (key.isEmpty()) {
            key = word;
        } else {
            return std::nullopt; // two keys: not a chord we can hold
        }
    }
    const xkb_keysym_t keysym = xkb_keysym_from_name(key.toUtf8().constData(), XKB_KEYSYM_CASE_INSENSITIVE);
    const std::optional<std::uint32_t> keyCode =
        keysym != XKB_KEY_NoSymbol && keyCodeFor ? keyCodeFor(keysym) : std::nullopt;
    if (!keyCode) {
        return std::nullopt;
    }
    // The desktop's own spelling of the key ("R", "F5"), named as a recorded key would be.
    const QString keyName = first.section(u'+', -1).trimmed();
    return HotKeyFormatter::shortcut(
        KeyEvent{*keyCode, keyName.isEmpty() ? QStringLiteral("+") : keyName, flags});
}

QCoro::Task<PortalGlobalShortcuts::Availability> PortalGlobalShortcuts::probe() {
    auto weak = lifetime_.weak(this);
    const PortalProbe found =
        co_await PortalRequest::properties(bus_, QString::fromLatin1(shortcutsInterface));
    PortalGlobalShortcuts* self = weak.lock();
    if (!self) {
        co_return Availability::absent;
    }
    self->available_ = found.offered();
    self->absence_ = found.absence;
    co_return self->available_ ? Availability::available : Availability::absent;
}

QVariant PortalGlobalShortcuts::shortcutList(const QString& trigger) const {
    QVariantMap properties{{QStringLiteral("description"), description_}};
    if (!trigger.isEmpty()) {
        properties.insert(QStringLiteral("preferred_trigger"), trigger);
    }
    return QVariant::fromValue(ShortcutEntries{{QString::fromLatin1(shortcutId), properties}});
}

QCoro::Task<bool> PortalGlobalShortcuts::createSession(QString trigger) {
    const QString token = PortalRequest::makeToken(QStringLiteral("parlune_session"));
    QDBusMessage message = QDBusMessage::createMethodCall(
        QString::fromLatin1(desktopService), QString::fromLatin1(desktopPath),
        QString::fromLatin1(shortcutsInterface), QStringLiteral("CreateSession"));
    QVariantMap options{{QStringLiteral("handle_token"), token},
                        {QStringLiteral("session_handle_token"), sessionToken_}};
    // Version 1 of KDE's backend binds the shortcuts named here and ignores BindShortcuts' list.
    if (!trigger.isEmpty()) {
        options.insert(QStringLiteral("shortcuts"), shortcutList(trigger));
    }
    message << options;
    auto weak = lifetime_.weak(this);
    const PortalResponse response = co_await PortalRequest::call(bus_, message, token);
    if (!weak.lock() || !response.succeeded()) {
        co_return false;
    }
    sessionHandle_ = PortalRequest::sessionHandleIn(response.results);
    if (sessionHandle_.isEmpty()) {
        co_return false;
    }
    sessionTrigger_ = trigger;
    subscribeSession(true);
    noteBoundTrigger(response.results);
    co_return true;
}

void PortalGlobalShortcuts::subscribeSession(bool on) {
    // Subscribed per session rather than once at construction: a match Qt is asked for on a
    // connection that has not yet made a call can be lost, and presses then never arrive.
    const QString& service = anySender;
    const QString path = QString::fromLatin1(desktopPath);
    const QString interface = QString::fromLatin1(shortcutsInterface);
    const auto change = [&](const QString& objectPath, const QString& iface, const char* name,
                            const char* slot) {
        if (on) {
            bus_.connect(service, objectPath, iface, QString::fromLatin1(name), this, slot);
        } else {
            bus_.disconnect(service, objectPath, iface, QString::fromLatin1(name), this, slot);
        }
    };
    change(sessionHandle_, QString::fromLatin1(sessionInterface), "Closed",
           SLOT(onSessionClosed(QVariantMap)));
    change(path, interface, "Activated",
           SLOT(onActivated(QDBusObjectPath, QString, qulonglong, QVariantMap)));
    change(path, interface, "Deactivated",
           SLOT(onDeactivated(QDBusObjectPath, QString, qulonglong, QVariantMap)));
    change(path, interface, "ShortcutsChanged", SLOT(onShortcutsChanged(QDBusMessage)));
}

QDBusPendingCall PortalGlobalShortcuts::closeSession() {
    if (!isOpen()) {
        return QDBusPendingCall::fromCompletedCall(QDBusMessage());
    }
    subscribeSession(false);
    const QDBusPendingCall closing = bus_.asyncCall(
        QDBusMessage::createMethodCall(QString::fromLatin1(desktopService), sessionHandle_,
                                       QString::fromLatin1(sessionInterface), QStringLiteral("Close")));
    sessionHandle_.clear();
    sessionTrigger_.clear();
    boundTrigger_.clear();
    held_ = false;
    return closing;
}

QCoro::Task<void> PortalGlobalShortcuts::closeSessionBeforeReopening() {
    // The next session has the same path: the portal must be done with this one first, or the
    // two overlap there and presses go to the closed one.
    QDBusPendingCall closing = closeSession();
    co_await closing;
}

void PortalGlobalShortcuts::noteBoundTrigger(const QVariantMap& results) {
    const std::optional<QString> trigger = triggerDescriptionIn(results.value(QStringLiteral("shortcuts")));
    if (!trigger || *trigger == boundTrigger_) {
        return;
    }
    boundTrigger_ = *trigger;
    if (onTriggerChanged_) {
        onTriggerChanged_(boundTrigger_);
    }
}

HotKeyService::Result PortalGlobalShortcuts::installHandler(Handler handler) {
    handler_ = std::move(handler);
    handlerHandle_ = nextHandle_++;
    return {0, handlerHandle_};
}

void PortalGlobalShortcuts::removeHandler(Handle handler) {
    if (handler == 0 || handler != handlerHandle_) {
        return;
    }
    handler_ = nullptr;
    handlerHandle_ = 0;
}

HotKeyService::Result PortalGlobalShortcuts::registerHotKey(std::uint32_t keyCode, std::uint32_t modifiers,
                                                            HotKeyIdentifier identifier) {
    const std::optional<std::uint32_t> keysym = keysymFor_ ? keysymFor_(keyCode) : std::nullopt;
    const std::optional<QString> trigger = keysym ? triggerFor(*keysym, modifiers) : std::nullopt;
    if (!trigger) {
        return {noSuchKeyStatus, 0};
    }
    if (!available_) {
        return {portalFailedStatus, 0};
    }
    const Handle handle = nextHandle_++;
    registrations_[handle] = Registration{identifier, *trigger};
    ++pendingBindings_;
    spawnTask(
        [weak = lifetime_.weak(this), handle, trigger = *trigger](std::stop_token) -> QCoro::Task<void> {
            PortalGlobalShortcuts* self = weak.lock();
            // One binding at a time: each may close the session and open another on the same path.
            while (self && self->bindInFlight_) {
                co_await qCoro(self, &PortalGlobalShortcuts::bindingFinished);
                self = weak.lock();
            }
            if (!self) {
                co_return;
            }
            self->bindInFlight_ = true;
            // A registration dropped while it waited (a newer one replaced it) needs no binding.
            if (self->registrations_.count(handle) != 0) {
                co_await self->bind(handle, trigger);
            }
            if ((self = weak.lock())) {
                self->bindInFlight_ = false;
                --self->pendingBindings_;
                Q_EMIT self->bindingFinished(QPrivateSignal());
            }
        });
    return {0, handle};
}

QCoro::Task<void> PortalGlobalShortcuts::bind(Handle handle, QString trigger) {
    auto weak = lifetime_.weak(this);
    const std::int32_t status = co_await bindTrigger(trigger);
    PortalGlobalShortcuts* self = weak.lock();
    if (!self) {
        co_return;
    }
    if (status == 0) {
        self->hasBound_ = true;
        co_return;
    }
    self->refuse(handle, status);
}

QCoro::Task<std::int32_t> PortalGlobalShortcuts::bindTrigger(QString trigger) {
    auto weak = lifetime_.weak(this);
    // A key the desktop already binds needs no new session: that is the case when the stored
    // shortcut was just set to the key the user chose in the desktop's settings.
    if (isOpen() && sessionTrigger_ != trigger && !describesTrigger(boundTrigger_, trigger)) {
        // A session binds what it was created with; another key needs a new one.
        co_await closeSessionBeforeReopening();
        if (!weak.lock()) {
            co_return 0;
        }
    }
    if (!isOpen()) {
        if (!co_await createSession(trigger)) {
            co_return weak.lock() ? portalFailedStatus : 0;
        }
    }
    if (describesTrigger(boundTrigger_, trigger)) {
        co_return co_await keyGrantedByShortcutDaemon();
    }
    if (!hasBound_ && !boundTrigger_.isEmpty()) {
        // At start the desktop still holds the key the user gave our shortcut in its own settings:
        // that choice stands (the trigger handler reports it). A key asked for later is refused
        // below instead, since this desktop does not take it from us.
        co_return co_await keyGrantedByShortcutDaemon();
    }

    // Not bound as asked (the key belongs to something else, or the desktop keeps the user's own
    // choice): ask the portal to bind it, which may let the user choose.
    const QString token = PortalRequest::makeToken(QStringLiteral("parlune_bind"));
    QDBusMessage message = QDBusMessage::createMethodCall(
        QString::fromLatin1(desktopService), QString::fromLatin1(desktopPath),
        QString::fromLatin1(shortcutsInterface), QStringLiteral("BindShortcuts"));
    message << QVariant::fromValue(QDBusObjectPath(sessionHandle_)) << shortcutList(trigger) << QString()
            << QVariantMap{{QStringLiteral("handle_token"), token}};
    const PortalResponse response = co_await PortalRequest::call(bus_, message, token);
    if (!weak.lock()) {
        co_return 0;
    }
    if (response.code == PortalResponse::cancelled) {
        co_return declinedStatus;
    }
    if (!response.succeeded()) {
        co_return portalFailedStatus;
    }
    noteBoundTrigger(response.results);
    if (!describesTrigger(boundTrigger_, trigger)) {
        co_return boundTrigger_.isEmpty() ? refusedStatus : keptOtherKeyStatus;
    }
    co_return co_await keyGrantedByShortcutDaemon();
}

QCoro::Task<std::int32_t> PortalGlobalShortcuts::keyGrantedByShortcutDaemon() {
    // KDE's backend (5.27) describes the key it asked its shortcut daemon for, even when the daemon
    // kept that key for an application that held it first. The daemon knows what it granted; where
    // it is not running (other desktops) the portal's word stands. It is never started for this.
    const QString service = QStringLiteral("org.kde.kglobalaccel");
    const QString path = QStringLiteral("/kglobalaccel");
    const QString interface = QStringLiteral("org.kde.KGlobalAccel");
    const QString component = sessionHandle_.section(u'/', -1);
    auto weak = lifetime_.weak(this);

    QDBusMessage lookup =
        QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("getComponent"));
    lookup << component;
    lookup.setAutoStartService(false);
    const QDBusPendingReply<QDBusObjectPath> found =
        co_await QDBusPendingReply<QDBusObjectPath>(bus_.asyncCall(lookup));
    if (!weak.lock() || found.isError()) {
        co_return 0; // not KDE's daemon, or our shortcut is filed elsewhere
    }
    QDBusMessage keysCall =
        QDBusMessage::createMethodCall(service, path, interface, QStringLiteral("shortcut"));
    keysCall << QStringList{component, QString::fromLatin1(shortcutId), component, description_};
    keysCall.setAutoStartService(false);
    const QDBusPendingReply<QList<int>> keys =
        co_await QDBusPendingReply<QList<int>>(bus_.asyncCall(keysCall));
    if (!weak.lock() || keys.isError()) {
        co_return 0;
    }
    const QList<int> granted = keys.value();
    if (std::all_of(granted.cbegin(), granted.cend(), [](int key) { return key == 0; })) {
        boundTrigger_.clear();
        co_return refusedStatus;
    }
    co_return 0;
}

void PortalGlobalShortcuts::refuse(Handle handle, std::int32_t status) {
    if (registrations_.erase(handle) == 0) {
        return; // unregistered meanwhile: nobody waits for this answer
    }
    if (onRefused_) {
        onRefused_(status);
    }
}

void PortalGlobalShortcuts::unregisterHotKey(Handle hotKey) {
    // The binding itself stays with the session: the next registration of the same key reuses it
    // without asking the desktop again, and presses meanwhile find no registration.
    registrations_.erase(hotKey);
}

void PortalGlobalShortcuts::onActivated(const QDBusObjectPath& session, const QString& id, qulonglong,
                                        const QVariantMap&) {
    if (session.path() != sessionHandle_ || id != QLatin1String(shortcutId)) {
        return;
    }
    // A backend that reports releases marks auto-repeat: presses before the release are one press.
    if (held_ && backendReportsRelease_) {
        return;
    }
    held_ = true;
    if (registrations_.empty() || !handler_ || isBinding()) {
        return;
    }
    Q_ASSERT(QThread::currentThread() == QCoreApplication::instance()->thread());
    const HotKeyIdentifier identifier = registrations_.begin()->second.identifier;
    Handler handler = handler_; // the handler may unregister and so drop the registration
    handler(identifier);
}

void PortalGlobalShortcuts::onDeactivated(const QDBusObjectPath& session, const QString& id, qulonglong,
                                          const QVariantMap&) {
    if (session.path() != sessionHandle_ || id != QLatin1String(shortcutId)) {
        return;
    }
    backendReportsRelease_ = true;
    held_ = false;
}

void PortalGlobalShortcuts::onShortcutsChanged(const QDBusMessage& message) {
    const QVariantList arguments = message.arguments();
    if (arguments.size() < 2 || arguments.at(0).value<QDBusObjectPath>().path() != sessionHandle_) {
        return;
    }
    noteBoundTrigger(QVariantMap{{QStringLiteral("shortcuts"), arguments.at(1)}});
}

void PortalGlobalShortcuts::onSessionClosed(const QVariantMap&) {
    // The desktop ended the session (its portal restarted, the user revoked it): nothing is bound.
    subscribeSession(false);
    sessionHandle_.clear();
    sessionTrigger_.clear();
    boundTrigger_.clear();
    held_ = false;
    const bool hadRegistrations = !registrations_.empty();
    registrations_.clear();
    if (hadRegistrations && onRefused_) {
        onRefused_(sessionEndedStatus);
    }
}

} // namespace parlune::portal
