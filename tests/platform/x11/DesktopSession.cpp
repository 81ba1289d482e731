#include "DesktopSession.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QThread>

#include <xcb/xcb.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <functional>

namespace parlune::test {

namespace {

DesktopSession* currentSession = nullptr;

bool acceptsClients(const QString& display) {
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), nullptr);
    const bool connected = !xcb_connection_has_error(c);
    xcb_disconnect(c);
    return connected;
}

bool hasWindowManager(const QString& display) {
    xcb_connection_t* c = xcb_connect(display.toLocal8Bit().constData(), nullptr);
    if (xcb_connection_has_error(c)) {
        xcb_disconnect(c);
        return false;
    }
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(c)).data->root;
    const char name[] = "_NET_SUPPORTING_WM_CHECK";
    auto* atom = xcb_intern_atom_reply(c, xcb_intern_atom(c, 0, sizeof(name) - 1, name), nullptr);
    bool found = false;
    if (atom) {
        auto* property = xcb_get_property_reply(
            c, xcb_get_property(c, 0, root, atom->atom, XCB_ATOM_WINDOW, 0, 1), nullptr);
        found = property && xcb_get_property_value_length(property) == 4;
        std::free(property);
    }
    std::free(atom);
    xcb_disconnect(c);
    return found;
}

} // namespace

bool DesktopSession::waitFor(const std::function<bool()>& ready, int timeoutMs) {
    QElapsedTimer timer;
    timer.start();
    while (!ready()) {
        if (timer.elapsed() > timeoutMs) {
            return false;
        }
        QThread::msleep(20);
    }
    return true;
}

bool DesktopSession::exited(pid_t pid) {
    int status = 0;
    return ::waitpid(pid, &status, WNOHANG) == pid;
}

DesktopSession* DesktopSession::current() {
    return currentSession;
}
void DesktopSession::setCurrent(DesktopSession* session) {
    currentSession = session;
}

DesktopSession::~DesktopSession() {
    stop();
}

pid_t DesktopSession::spawn(const QStringList& command, const QString& log) {
    std::vector<QByteArray> storage;
    for (const QString& part : command) {
        storage.push_back(part.toLocal8Bit());
    }
    std::vector<char*> argv;
    for (QByteArray& part : storage) {
        argv.push_back(part.data());
    }
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setpgid(0, 0);
        // Children's chatter (dconf warnings, openbox menus) is not the test's output.
        if (FILE* sink = std::fopen(log.isEmpty() ? "/dev/null" : log.toLocal8Bit().constData(), "w")) {
            ::dup2(fileno(sink), STDOUT_FILENO);
            ::dup2(fileno(sink), STDERR_FILENO);
        }
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    return pid;
}

void DesktopSession::terminate(pid_t pid) {
    if (pid <= 0) {
        return;
    }
    ::kill(pid, SIGTERM);
    if (!waitFor([pid] { return exited(pid); }, 2000)) {
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
    }
}

int DesktopSession::run(const QStringList& command, QByteArray* output, int timeoutMs) {
    QProcess process;
    process.setProgram(command.front());
    process.setArguments(command.mid(1));
    process.setProcessChannelMode(QProcess::SeparateChannels);
    process.start();
    if (!process.waitForStarted(timeoutMs)) {
        return -1;
    }
    QElapsedTimer timer;
    timer.start();
    while (process.state() != QProcess::NotRunning && timer.elapsed() < timeoutMs) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        process.waitForFinished(5);
    }
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
        return -1;
    }
    if (output) {
        *output = process.readAllStandardOutput();
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

bool DesktopSession::start(const QString& openboxConfig) {
    for (const char* tool : {"Xvfb", "openbox", "dbus-daemon", "xdotool", "mousepad", "xclip"}) {
        if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty()) {
            failure_ = QStringLiteral("%1 is not installed (scripts/setup.sh installs it)").arg(tool);
            return false;
        }
    }
    directory_ = QDir::tempPath() + QStringLiteral("/parlune-desktop-%1").arg(::getpid());
    QDir().mkpath(directory_ + QStringLiteral("/config"));
    QDir().mkpath(directory_ + QStringLiteral("/runtime"));
    QFile::setPermissions(directory_ + QStringLiteral("/runtime"),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);

    // Test processes run in parallel: each claims a display number with a lock file of its own,
    // held until its server has fully exited, so no two sessions (nor one being torn down and one
    // starting) ever share a number. Numbers start at a point derived from the process id.
    QString display;
    for (int attempt = 0; attempt < 50 && xvfb_ <= 0; ++attempt) {
        const int number = 100 + (static_cast<int>(::getpid()) + attempt * 7) % 800;
        if (QFile::exists(QStringLiteral("/tmp/.X%1-lock").arg(number)) ||
            QFile::exists(QStringLiteral("/tmp/.X11-unix/X%1").arg(number))) {
            continue;
        }
        const QByteArray claim = QStringLiteral("/tmp/.parlune-display-%1.lock").arg(number).toLocal8Bit();
        int fd = ::open(claim.constData(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
        if (fd < 0) {
            // A claim left by a test process that died without tearing down is taken over.
            QFile stale(QString::fromLocal8Bit(claim));
            const pid_t owner = stale.open(QIODevice::ReadOnly) ? stale.readAll().trimmed().toInt() : 0;
            if (owner <= 0 || ::kill(owner, 0) == 0 || errno != ESRCH) {
                continue;
            }
            ::unlink(claim.constData());
            fd = ::open(claim.constData(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
            if (fd < 0) {
                continue;
            }
        }
        const QByteArray owner = QByteArray::number(::getpid());
        [[maybe_unused]] const ssize_t written =
            ::write(fd, owner.constData(), static_cast<std::size_t>(owner.size()));
        ::close(fd);
        display = QStringLiteral(":%1").arg(number);
        const pid_t pid =
            spawn({QStringLiteral("Xvfb"), display, QStringLiteral("-screen"), QStringLiteral("0"),
                   QStringLiteral("1280x800x24"), QStringLiteral("-nolisten"), QStringLiteral("tcp"),
                   // Without this the server resets whenever its last client leaves, and
                   // a client connecting during the reset is refused.
                   QStringLiteral("-noreset")});
        // The socket appears before the server takes clients; wait for a real connection.
        if (waitFor([&] { return exited(pid) || acceptsClients(display); }, 8000) && !exited(pid)) {
            xvfb_ = pid;
            displayClaim_ = QString::fromLocal8Bit(claim);
        } else {
            terminate(pid);
            ::unlink(claim.constData());
        }
    }
    if (xvfb_ <= 0) {
        failure_ = QStringLiteral("no X server could be started");
        return false;
    }
    const QString busSocket = directory_ + QStringLiteral("/bus");
    const QString busAddress = QStringLiteral("unix:path=") + busSocket;
    ::setenv("DISPLAY", display.toLocal8Bit().constData(), 1);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", busAddress.toLocal8Bit().constData(), 1);
    ::setenv("XDG_CONFIG_HOME", (directory_ + QStringLiteral("/config")).toLocal8Bit().constData(), 1);
    ::setenv("XDG_RUNTIME_DIR", (directory_ + QStringLiteral("/runtime")).toLocal8Bit().constData(), 1);
    ::setenv("GSETTINGS_BACKEND", "memory", 1);
    ::setenv("QT_QPA_PLATFORM", "xcb", 1);
    ::unsetenv("WAYLAND_DISPLAY");
    ::setenv("XDG_SESSION_TYPE", "x11", 1);

    bus_ = spawn({QStringLiteral("dbus-daemon"), QStringLiteral("--session"), QStringLiteral("--nofork"),
                  QStringLiteral("--address=") + busAddress});
    if (!waitFor([&] { return QFile::exists(busSocket); }, 5000)) {
        failure_ = QStringLiteral("the session bus did not start");
        return false;
    }
    // Bring up the accessibility bus now (it is started on first request), so that a loaded machine
    // does not make this process's own first AT-SPI call time out.
    const pid_t launcher =
        spawn({QStringLiteral("dbus-send"), QStringLiteral("--session"), QStringLiteral("--print-reply"),
               QStringLiteral("--reply-timeout=10000"), QStringLiteral("--dest=org.a11y.Bus"),
               QStringLiteral("/org/a11y/bus"), QStringLiteral("org.a11y.Bus.GetAddress")});
    if (!waitFor([&] { return exited(launcher); }, 10000)) {
        terminate(launcher);
    }
    const QString windowManagerLog = directory_ + QStringLiteral("/openbox.log");
    for (int attempt = 0; attempt < 5 && !hasWindowManager(display); ++attempt) {
        terminate(windowManager_);
        if (attempt > 0) {
            QThread::msleep(500); // a loaded machine: give the server a moment
        }
        windowManager_ = spawn({QStringLiteral("openbox"), QStringLiteral("--config-file"), openboxConfig},
                               windowManagerLog);
        waitFor([&] { return hasWindowManager(display) || exited(windowManager_); }, 5000);
    }
    if (!hasWindowManager(display)) {
        QFile log(windowManagerLog);
        log.open(QIODevice::ReadOnly);
        failure_ = QStringLiteral("openbox did not start on %1 (server answering: %2): ")
                       .arg(display, acceptsClients(display) ? QStringLiteral("yes") : QStringLiteral("no")) +
                   QString::fromLocal8Bit(log.readAll()).simplified();
        return false;
    }
    return true;
}

void DesktopSession::stop() {
    terminate(windowManager_);
    terminate(bus_);
    terminate(xvfb_);
    windowManager_ = bus_ = xvfb_ = -1;
    if (!displayClaim_.isEmpty()) {
        ::unlink(displayClaim_.toLocal8Bit().constData());
        displayClaim_.clear();
    }
    if (!directory_.isEmpty()) {
        QDir(directory_).removeRecursively();
        directory_.clear();
    }
}

} // namespace parlune::test
