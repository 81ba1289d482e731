#pragma once

#include <QCoro/QCoroTask>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QString>
#include <QVariantMap>

#include <cstdint>

namespace parlune::portal {

inline constexpr const char* desktopService = "org.freedesktop.portal.Desktop";
inline constexpr const char* desktopPath = "/org/freedesktop/portal/desktop";
// Signals are matched on any sender: naming the portal's bus name would make Qt ask the bus for
// its owner and wait for the answer. The paths matched hold our own name or session.
inline const QString anySender;

// What a portal request ended with: the Request object's Response, or the D-Bus error of the call.
struct PortalResponse {
    enum Code : std::uint32_t { success = 0, cancelled = 1, failed = 2 };
    std::uint32_t code = failed;
    QVariantMap results;
    QString error; // set when the call itself failed or the portal went away meanwhile

    bool succeeded() const { return code == success; }
};

// What asking a portal interface for its properties found: the properties, or why the portal
// counts as absent ("no_answer" when it did not reply in time, "not_offered" when the desktop has no
// such portal, or another word a caller sets), as a word for the diagnostics log.
struct PortalProbe {
    QVariantMap properties;
    QString absence;

    bool offered() const { return absence.isEmpty(); }
};

// Portal methods answer later, through a Request object whose path the caller can predict from its
// unique bus name and a handle_token. The Response can follow the method's reply at once, so the
// signal is subscribed before the call is made; a portal that still returns a different path gets
// that one followed too.
class PortalRequest {
public:
    // A token unique within this process, usable as handle_token and session_handle_token.
    static QString makeToken(const QString& prefix);
    // "/org/freedesktop/portal/desktop/<kind>/<sender>/<token>": the sender is the unique name
    // without its ':' and with '.' turned into '_'.
    static QString objectPath(const QString& kind, const QString& uniqueName, const QString& token);

    // The session handle of a CreateSession response: a string in version 1 portals, an object path
    // in later ones. Empty when there is none.
    static QString sessionHandleIn(const QVariantMap& results);

    // A portal that has not answered a probe by then counts as absent: the desktop's session bus
    // would wait 25 seconds for it.
    static constexpr int probeTimeoutMs = 3000;
    // Reads every property of `interface` on the desktop portal, waiting at most `timeoutMs`.
    static QCoro::Task<PortalProbe> properties(QDBusConnection bus, QString interface,
                                               int timeoutMs = probeTimeoutMs);

    // Calls `message` (whose options already carry handle_token = `token`) and waits, without
    // blocking, for the Response. A portal that leaves the bus meanwhile counts as failed.
    static QCoro::Task<PortalResponse> call(QDBusConnection bus, QDBusMessage message, QString token);
};

} // namespace parlune::portal
