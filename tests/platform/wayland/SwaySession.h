#pragma once

#include <QString>
#include <QStringList>

#include <sys/types.h>

namespace parlune::test {

// A private headless sway for one test process: its own runtime directory and session bus, a
// configuration that binds no keys and starts no XWayland. The process's WAYLAND_DISPLAY, SWAYSOCK,
// XDG_RUNTIME_DIR and DBUS_SESSION_BUS_ADDRESS point at them. sway refuses to run as root, so as
// root it runs in a user namespace where it is an ordinary user (its sockets stay ours).
class SwaySession {
public:
    SwaySession() = default;
    ~SwaySession();
    SwaySession(const SwaySession&) = delete;
    SwaySession& operator=(const SwaySession&) = delete;

    // Starts everything; on failure `failure()` says why and the tests skip.
    bool start();
    void stop();
    const QString& failure() const { return failure_; }
    bool isRunning() const { return failure_.isEmpty() && sway_ > 0; }
    const QString& directory() const { return directory_; }

    static SwaySession* current();
    static void setCurrent(SwaySession* session);

    // Runs `swaymsg ARGUMENTS`; returns its exit code.
    static int swaymsg(const QStringList& arguments, QByteArray* output = nullptr);

private:
    QString failure_;
    QString directory_;
    pid_t bus_ = -1;
    pid_t sway_ = -1;
};

} // namespace parlune::test
