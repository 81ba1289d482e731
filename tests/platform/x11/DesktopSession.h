#pragma once

#include <QString>
#include <QStringList>

#include <sys/types.h>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace parlune::test {

// A private X desktop for one test process: Xvfb on a free display, a session bus, and openbox
// with a configuration that binds no keys. Children are started before Qt and torn down in reverse
// order; the process's DISPLAY and DBUS_SESSION_BUS_ADDRESS point at them.
class DesktopSession {
public:
    DesktopSession() = default;
    ~DesktopSession();
    DesktopSession(const DesktopSession&) = delete;
    DesktopSession& operator=(const DesktopSession&) = delete;

    // Starts everything; on failure `failure()` says why and the tests skip.
    bool start(const QString& openboxConfig);
    void stop();
    const QString& failure() const { return failure_; }
    bool isRunning() const { return failure_.isEmpty() && xvfb_ > 0; }
    const QString& directory() const { return directory_; }

    static DesktopSession* current();
    static void setCurrent(DesktopSession* session);

    // Starts a program with this desktop's environment; returns its process id or -1.
    // Its output goes to `log` when given, else nowhere.
    static pid_t spawn(const QStringList& command, const QString& log = {});
    static void terminate(pid_t pid);
    // Runs a short command to its end (xdotool, xclip); returns its exit code, -1 if it did not run.
    // The event loop is kept running meanwhile, so this process can answer selection requests.
    static int run(const QStringList& command, QByteArray* output = nullptr, int timeoutMs = 5000);
    // Polls `ready` without running the event loop (before there is one) until it holds or
    // `timeoutMs` passed.
    static bool waitFor(const std::function<bool()>& ready, int timeoutMs);
    // Whether child `pid` has ended (and is reaped).
    static bool exited(pid_t pid);

private:
    QString failure_;
    QString directory_;
    QString displayClaim_;
    pid_t xvfb_ = -1;
    pid_t bus_ = -1;
    pid_t windowManager_ = -1;
};

} // namespace parlune::test
