#include "platform/linux/portal/PortalRemoteDesktopKeyboard.h"

#include "core/async/Sleep.h"
#include "core/platform/UserDefaults.h"
#include "core/platform/Workspace.h"
#include "platform/linux/portal/PortalRequest.h"

#include <QCoro/QCoroDBusPendingReply>
#include <QCoro/QCoroSignal>
#include <QDBusObjectPath>
#include <QDBusPendingReply>
#include <QElapsedTimer>

#include <chrono>
#include <utility>
#include <vector>

namespace parlune::portal {

namespace {

constexpr const char* remoteDesktopInterface = "org.freedesktop.portal.RemoteDesktop";
constexpr const char* sessionInterface = "org.freedesktop.portal.Session";
constexpr std::uint32_t keyboardDevice = 1;
// Keep the consent until the user revokes it (portal version 2 and later).
constexpr std::uint32_t persistUntilRevoked = 2;
constexpr std::uint32_t keysymControlL = 0xffe3;
constexpr std::uint32_t keysymShiftL = 0xffe1;

QDBusMessage portalCall(const QString& method) {
    return QDBusMessage::createMethodCall(QString::fromLatin1(desktopService),
                                          QString::fromLatin1(desktopPath),
                                          QString::fromLatin1(remoteDesktopInterface), method);
}

} // namespace

PortalRemoteDesktopKeyboard::PortalRemoteDesktopKeyboard(QDBusConnection bus, Workspace& workspace,
                                                         UserDefaults& settings, KeysymLookup keysymFor,
                                                         ShortcutHeld shortcutHeld)
    : bus_(std::move(bus)), workspace_(workspace), settings_(settings), keysymFor_(std::move(keysymFor)),
      shortcutHeld_(std::move(shortcutHeld)) {}

PortalRemoteDesktopKeyboard::~PortalRemoteDesktopKeyboard() {
    if (isStarted()) {
        bus_.asyncCall(QDBusMessage::createMethodCall(QString::fromLatin1(desktopService), sessionHandle_,
                                                      QString::fromLatin1(sessionInterface),
                                                      QStringLiteral("Close")));
    }
}

QCoro::Task<PortalProbe> PortalRemoteDesktopKeyboard::keyboardOffer(QDBusConnection bus) {
    PortalProbe found = co_await PortalRequest::properties(bus, QString::fromLatin1(remoteDesktopInterface));
    const std::uint32_t devices = found.properties.value(QStringLiteral("AvailableDeviceTypes")).toUInt();
    if (found.offered() && !(devices & keyboardDevice)) {
        found.absence = QStringLiteral("no_keyboard");
    }
    co_return found;
}

QCoro::Task<PortalRemoteDesktopKeyboard::Availability> PortalRemoteDesktopKeyboard::probe() {
    auto weak = lifetime_.weak(this);
    const PortalProbe offer = co_await keyboardOffer(bus_);
    PortalRemoteDesktopKeyboard* self = weak.lock();
    if (!self || !offer.offered()) {
        co_return Availability::absent;
    }
    self->version_ = offer.properties.value(QStringLiteral("version")).toUInt();
    co_return Availability::available;
}

QCoro::Task<bool> PortalRemoteDesktopKeyboard::start() {
    auto weak = lifetime_.weak(this);
    // One consent at a time: a chord that comes while the session opens waits for it.
    while (starting_) {
        co_await qCoro(this, &PortalRemoteDesktopKeyboard::startFinished);
        if (!weak.lock()) {
            co_return false;
        }
    }
    if (isStarted()) {
        co_return true;
    }
    starting_ = true;
    const bool started = co_await openSession();
    if (PortalRemoteDesktopKeyboard* self = weak.lock()) {
        self->starting_ = false;
        Q_EMIT self->startFinished(QPrivateSignal());
    }
    co_return started;
}

QCoro::Task<bool> PortalRemoteDesktopKeyboard::openSession() {
    auto weak = lifetime_.weak(this);
    // Made without a probe of its own (the offer was checked before the desktop's ports existed):
    // the version decides whether the consent can be kept.
    if (version_ == 0 && (co_await probe()) == Availability::absent) {
        co_return false;
    }
    if (!weak.lock()) {
        co_return false;
    }
    const QString createToken = PortalRequest::makeToken(QStringLiteral("parlune_keys"));
    QDBusMessage create = portalCall(QStringLiteral("CreateSession"));
    create << QVariantMap{
        {QStringLiteral("handle_token"), createToken},
        {QStringLiteral("session_handle_token"), PortalRequest::makeToken(QStringLiteral("parlune"))}};
    const PortalResponse created = co_await PortalRequest::call(bus_, create, createToken);
    if (!weak.lock() || !created.succeeded()) {
        co_return false;
    }
    const QString session = PortalRequest::sessionHandleIn(created.results);
    if (session.isEmpty()) {
        co_return false;
    }

    const QString selectToken = PortalRequest::makeToken(QStringLiteral("parlune_keys"));
    QVariantMap selectOptions{{QStringLiteral("handle_token"), selectToken},
                              {QStringLiteral("types"), keyboardDevice}};
    if (version_ >= 2) {
        selectOptions.insert(QStringLiteral("persist_mode"), persistUntilRevoked);
        if (const std::optional<QString> token = settings_.string(QString::fromLatin1(restoreTokenKey));
            token && !token->isEmpty()) {
            selectOptions.insert(QStringLiteral("restore_token"), *token);
        }
    }
    QDBusMessage select = portalCall(QStringLiteral("SelectDevices"));
    select << QVariant::fromValue(QDBusObjectPath(session)) << selectOptions;
    const PortalResponse selected = co_await PortalRequest::call(bus_, select, selectToken);
    if (!weak.lock() || !selected.succeeded()) {
        co_return false;
    }

    // Here the desktop asks the user, unless it remembers the consent.
    const QString startToken = PortalRequest::makeToken(QStringLiteral("parlune_keys"));
    QDBusMessage startCall = portalCall(QStringLiteral("Start"));
    startCall << QVariant::fromValue(QDBusObjectPath(session)) << QString()
              << QVariantMap{{QStringLiteral("handle_token"), startToken}};
    const PortalResponse started = co_await PortalRequest::call(bus_, startCall, startToken);
    if (!weak.lock()) {
        co_return false;
    }
    const bool keyboardGranted =
        started.succeeded() && (started.results.value(QStringLiteral("devices")).toUInt() & keyboardDevice);
    if (started.code == PortalResponse::cancelled || (started.succeeded() && !keyboardGranted)) {
        // Declined: a remembered consent that no longer holds is forgotten with it.
        settings_.remove(QString::fromLatin1(restoreTokenKey));
    }
    if (!keyboardGranted) {
        co_return false;
    }
    const QString restoreToken = started.results.value(QStringLiteral("restore_token")).toString();
    if (!restoreToken.isEmpty()) {
        settings_.setString(QString::fromLatin1(restoreTokenKey), restoreToken);
    }
    sessionHandle_ = session;
    bus_.connect(anySender, sessionHandle_, QString::fromLatin1(sessionInterface), QStringLiteral("Closed"),
                 this, SLOT(onSessionClosed(QVariantMap)));
    co_return true;
}

void PortalRemoteDesktopKeyboard::forgetSession() {
    bus_.disconnect(anySender, sessionHandle_, QString::fromLatin1(sessionInterface),
                    QStringLiteral("Closed"), this, SLOT(onSessionClosed(QVariantMap)));
    sessionHandle_.clear();
}

void PortalRemoteDesktopKeyboard::onSessionClosed(const QVariantMap&) {
    // The desktop ended it (the user stopped the remote control): the next chord asks again.
    forgetSession();
}

QCoro::Task<bool> PortalRemoteDesktopKeyboard::sendCommandKey(std::uint16_t keyCode, ProcessId target,
                                                              std::stop_token token) {
    co_return co_await sendChord(KeyChord{keyCode, KeyChord::command}, target, std::move(token));
}

QCoro::Task<bool> PortalRemoteDesktopKeyboard::waitForShortcutRelease(std::stop_token token) {
    auto weak = lifetime_.weak(this);
    const auto held = [this] { return shortcutHeld_ && shortcutHeld_(); };
    if (!held()) {
        holdWaitedOut_ = false;
        co_return true;
    }
    if (holdWaitedOut_) {
        co_return true; // this hold already cost its bound
    }
    QElapsedTimer waited;
    waited.start();
    while (waited.elapsed() < static_cast<qint64>(releaseWaitSeconds * 1000)) {
        co_await sleepFor(std::chrono::milliseconds(10), token);
        if (!weak.lock()) {
            co_return false;
        }
        if (!held()) {
            co_return true;
        }
    }
    holdWaitedOut_ = true;
    co_return true;
}

QCoro::Task<bool>
PortalRemoteDesktopKeyboard::sendKeysyms(const std::vector<std::pair<std::uint32_t, bool>>& events) {
    auto weak = lifetime_.weak(this);
    for (const auto& [keysym, pressed] : events) {
        QDBusMessage message = portalCall(QStringLiteral("NotifyKeyboardKeysym"));
        message << QVariant::fromValue(QDBusObjectPath(sessionHandle_)) << QVariantMap{}
                << static_cast<int>(keysym) << static_cast<uint>(pressed ? 1 : 0);
        // Each event is confirmed before the next, so a refused one stops the chord half-way and
        // what was pressed is released below.
        const QDBusPendingReply<> reply = co_await QDBusPendingReply<>(bus_.asyncCall(message));
        if (!weak.lock()) {
            co_return false;
        }
        if (reply.isError()) {
            co_return false;
        }
    }
    co_return true;
}

QCoro::Task<bool> PortalRemoteDesktopKeyboard::sendChord(KeyChord chord, ProcessId target,
                                                         std::stop_token token) {
    const std::optional<std::uint32_t> keysym = keysymFor_ ? keysymFor_(chord.keyCode) : std::nullopt;
    if (!keysym) {
        co_return false;
    }
    auto weak = lifetime_.weak(this);
    if (!co_await start() || !weak.lock()) {
        co_return false;
    }
    if (!co_await waitForShortcutRelease(token)) {
        co_return false;
    }
    throwIfCancelled(token);

    // The portal types into whatever has focus: it must still be the target.
    const std::optional<RunningApplication> front = workspace_.frontmostApplication();
    if (!front || front->processIdentifier != target) {
        co_return false;
    }

    std::vector<std::uint32_t> modifiers;
    if (chord.modifiers & KeyChord::command) {
        modifiers.push_back(keysymControlL);
    }
    if (chord.modifiers & KeyChord::shift) {
        modifiers.push_back(keysymShiftL);
    }
    std::vector<std::pair<std::uint32_t, bool>> events;
    for (std::uint32_t modifier : modifiers) {
        events.emplace_back(modifier, true);
    }
    events.emplace_back(*keysym, true);
    events.emplace_back(*keysym, false);
    for (auto it = modifiers.rbegin(); it != modifiers.rend(); ++it) {
        events.emplace_back(*it, false);
    }
    const bool sent = co_await sendKeysyms(events);
    if (!sent && weak.lock() && isStarted()) {
        // Nothing may stay down: release every key of the chord, whatever got through.
        std::vector<std::pair<std::uint32_t, bool>> releases{{*keysym, false}};
        for (std::uint32_t modifier : modifiers) {
            releases.emplace_back(modifier, false);
        }
        co_await sendKeysyms(releases);
    }
    co_return sent;
}

} // namespace parlune::portal
