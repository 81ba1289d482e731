#pragma once

#include <QDBusConnection>
#include <QProcess>
#include <QProcessEnvironment>
#include <QString>
#include <QTemporaryDir>

#include <memory>
#include <vector>

namespace parlune::test {

// A private KDE Wayland session for one test: its own runtime and configuration folders, a session
// bus, and `kwin_wayland --virtual` on it (which runs the global shortcut daemon, kglobalaccel, in
// process). The portal frontend and KDE's backend are started by the bus on first use, with the
// session's environment. Everything is stopped in reverse order by stop() or the destructor.
class KWinSession {
public:
    KWinSession() = default;
    ~KWinSession();
    KWinSession(const KWinSession&) = delete;
    KWinSession& operator=(const KWinSession&) = delete;

    // Starts everything; on failure `failure()` says why and the test skips.
    bool start();
    void stop();
    const QString& failure() const { return failure_; }

    // A connection to the session's bus, private to the caller (named `name`).
    QDBusConnection connect(const QString& name) const;
    const QString& busAddress() const { return busAddress_; }
    QString waylandSocketPath() const;
    // Starts a program as a client of this session (Qt programs on its Wayland socket).
    std::unique_ptr<QProcess> launch(const QString& program, const QStringList& arguments) const;
    // KWin's own output, for failure messages.
    QByteArray compositorLog() const;

private:
    bool startBus();
    bool startCompositor();
    bool waitForName(const QString& name, int timeoutMs);
    void endServicesStartedByBus();

    QString failure_;
    std::unique_ptr<QTemporaryDir> directory_;
    QProcessEnvironment environment_;
    QString busAddress_;
    std::unique_ptr<QProcess> bus_;
    std::unique_ptr<QProcess> compositor_;
};

} // namespace parlune::test
