#include "SwaySession.h"

#include "DesktopSession.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <unistd.h>

#include <cstdlib>

namespace parlune::test {

namespace {

SwaySession* currentSession = nullptr;

// The first entry of `directory` whose name matches `pattern` and is a socket.
QString socketIn(const QString& directory, const QString& pattern) {
    for (const QFileInfo& entry : QDir(directory).entryInfoList({pattern}, QDir::System)) {
        if (!entry.fileName().endsWith(QLatin1String(".lock"))) {
            return entry.absoluteFilePath();
        }
    }
    return {};
}

} // namespace

SwaySession* SwaySession::current() {
    return currentSession;
}
void SwaySession::setCurrent(SwaySession* session) {
    currentSession = session;
}

SwaySession::~SwaySession() {
    stop();
}

int SwaySession::swaymsg(const QStringList& arguments, QByteArray* output) {
    return DesktopSession::run(QStringList{QStringLiteral("swaymsg")} + arguments, output);
}

bool SwaySession::start() {
    for (const char* tool : {"sway", "swaymsg", "dbus-daemon", "wl-copy", "wl-paste", "mousepad", "foot"}) {
        if (QStandardPaths::findExecutable(QString::fromLatin1(tool)).isEmpty()) {
            failure_ = QStringLiteral("%1 is not installed (scripts/setup.sh installs it)").arg(tool);
            return false;
        }
    }
    directory_ = QDir::tempPath() + QStringLiteral("/parlune-sway-%1").arg(::getpid());
    const QString runtime = directory_ + QStringLiteral("/runtime");
    QDir().mkpath(directory_ + QStringLiteral("/config"));
    QDir().mkpath(runtime);
    QFile::setPermissions(runtime, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    const QString config = directory_ + QStringLiteral("/sway.conf");
    QFile configFile(config);
    if (!configFile.open(QIODevice::WriteOnly)) {
        failure_ = QStringLiteral("cannot write %1").arg(config);
        return false;
    }
    configFile.write("output HEADLESS-1 resolution 1280x800\n"
                     "xwayland disable\n"
                     "default_border none\n"
                     "focus_follows_mouse no\n");
    configFile.close();

    const QString busSocket = directory_ + QStringLiteral("/bus");
    const QString busAddress = QStringLiteral("unix:path=") + busSocket;
    ::setenv("XDG_RUNTIME_DIR", runtime.toLocal8Bit().constData(), 1);
    ::setenv("XDG_CONFIG_HOME", (directory_ + QStringLiteral("/config")).toLocal8Bit().constData(), 1);
    ::setenv("DBUS_SESSION_BUS_ADDRESS", busAddress.toLocal8Bit().constData(), 1);
    ::setenv("GSETTINGS_BACKEND", "memory", 1);
    ::setenv("XDG_SESSION_TYPE", "wayland", 1);
    ::setenv("XDG_CURRENT_DESKTOP", "sway", 1);
    ::setenv("GDK_BACKEND", "wayland", 1);
    ::setenv("QT_QPA_PLATFORM", "offscreen", 1);
    ::unsetenv("DISPLAY");
    ::unsetenv("WAYLAND_DISPLAY");
    ::unsetenv("SWAYSOCK");

    // As root, sway and what it starts run as another user of a user namespace, whose claim of a
    // user id the bus cannot check against the socket's: the bus lets them in anonymously.
    const QString busConfig = directory_ + QStringLiteral("/bus.conf");
    QFile busConfigFile(busConfig);
    if (!busConfigFile.open(QIODevice::WriteOnly)) {
        failure_ = QStringLiteral("cannot write %1").arg(busConfig);
        return false;
    }
    busConfigFile.write(
        QStringLiteral("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\"\n"
                       " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                       "<busconfig><type>session</type><listen>%1</listen>\n"
                       "<auth>EXTERNAL</auth><auth>ANONYMOUS</auth><allow_anonymous/>\n"
                       "<standard_session_servicedirs/>\n"
                       "<policy context=\"default\"><allow send_destination=\"*\" eavesdrop=\"true\"/>"
                       "<allow eavesdrop=\"true\"/><allow own=\"*\"/></policy></busconfig>\n")
            .arg(busAddress)
            .toUtf8());
    busConfigFile.close();
    bus_ = DesktopSession::spawn({QStringLiteral("dbus-daemon"), QStringLiteral("--config-file=") + busConfig,
                                  QStringLiteral("--nofork")});
    if (!DesktopSession::waitFor([&] { return QFile::exists(busSocket); }, 5000)) {
        failure_ = QStringLiteral("the session bus did not start");
        return false;
    }
    ::setenv("WLR_BACKENDS", "headless", 1);
    ::setenv("WLR_LIBINPUT_NO_DEVICES", "1", 1);
    ::setenv("WLR_RENDERER", "pixman", 1);
    QStringList command{QStringLiteral("sway"), QStringLiteral("-c"), config};
    if (::geteuid() == 0) {
        command = QStringList{QStringLiteral("unshare"), QStringLiteral("--user"),
                              QStringLiteral("--map-user=1000"), QStringLiteral("--map-group=1000")} +
                  command;
    }
    const QString log = directory_ + QStringLiteral("/sway.log");
    sway_ = DesktopSession::spawn(command, log);
    QString display;
    QString ipc;
    DesktopSession::waitFor(
        [&] {
            display = socketIn(runtime, QStringLiteral("wayland-*"));
            ipc = socketIn(runtime, QStringLiteral("sway-ipc.*"));
            return DesktopSession::exited(sway_) || (!display.isEmpty() && !ipc.isEmpty());
        },
        10000);
    if (display.isEmpty() || ipc.isEmpty()) {
        QFile output(log);
        output.open(QIODevice::ReadOnly);
        failure_ = QStringLiteral("sway did not start: ") +
                   QString::fromLocal8Bit(output.readAll()).right(600).simplified();
        DesktopSession::terminate(sway_);
        sway_ = -1;
        return false;
    }
    ::setenv("WAYLAND_DISPLAY", QFileInfo(display).fileName().toLocal8Bit().constData(), 1);
    ::setenv("SWAYSOCK", ipc.toLocal8Bit().constData(), 1);
    return true;
}

void SwaySession::stop() {
    DesktopSession::terminate(sway_);
    DesktopSession::terminate(bus_);
    sway_ = bus_ = -1;
    if (!directory_.isEmpty()) {
        QDir(directory_).removeRecursively();
        directory_.clear();
    }
}

} // namespace parlune::test
