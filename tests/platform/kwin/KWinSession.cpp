#include "KWinSession.h"

#include "support/RunTask.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <algorithm>
#include <vector>

#include <signal.h>

namespace parlune::test {

namespace {

const QString socketName = QStringLiteral("wayland-parlune-test");

void endProcess(std::unique_ptr<QProcess>& process) {
    if (!process) {
        return;
    }
    if (process->state() != QProcess::NotRunning) {
        process->terminate();
        if (!process->waitForFinished(5000)) {
            process->kill();
            process->waitForFinished(2000);
        }
    }
    process.reset();
}

} // namespace

KWinSession::~KWinSession() {
    stop();
}

bool KWinSession::start() {
    const QString kwin = QStandardPaths::findExecutable(QStringLiteral("kwin_wayland"));
    if (kwin.isEmpty()) {
        failure_ = QStringLiteral("kwin_wayland is not installed");
        return false;
    }
    if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty()) {
        failure_ = QStringLiteral("dbus-daemon is not installed");
        return false;
    }
    directory_ = std::make_unique<QTemporaryDir>(QDir::tempPath() + QStringLiteral("/parlune-kwin-XXXXXX"));
    if (!directory_->isValid()) {
        failure_ = QStringLiteral("no temporary folder");
        return false;
    }
    const QString root = directory_->path();
    QFile::setPermissions(root, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    for (const char* folder : {"config", "data", "cache"}) {
        QDir(root).mkpath(QString::fromLatin1(folder));
    }

    environment_ = QProcessEnvironment::systemEnvironment();
    environment_.insert(QStringLiteral("XDG_RUNTIME_DIR"), root);
    environment_.insert(QStringLiteral("XDG_CONFIG_HOME"), root + QStringLiteral("/config"));
    environment_.insert(QStringLiteral("XDG_DATA_HOME"), root + QStringLiteral("/data"));
    environment_.insert(QStringLiteral("XDG_CACHE_HOME"), root + QStringLiteral("/cache"));
    environment_.insert(QStringLiteral("WAYLAND_DISPLAY"), socketName);
    environment_.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("KDE"));
    environment_.insert(QStringLiteral("XDG_SESSION_TYPE"), QStringLiteral("wayland"));
    environment_.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("wayland"));
    // Software painting: the virtual output is never looked at, and GL on two shared cores is slow.
    environment_.insert(QStringLiteral("KWIN_COMPOSE"), QStringLiteral("Q"));
    // Lets the test's own client use KWin's fake-input protocol to press keys.
    environment_.insert(QStringLiteral("KWIN_WAYLAND_NO_PERMISSION_CHECKS"), QStringLiteral("1"));
    environment_.remove(QStringLiteral("DISPLAY"));
    environment_.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));

    // The installed binary carries file capabilities, which a container that lacks them refuses
    // to run; a copy has none and behaves the same otherwise.
    const QString copy = root + QStringLiteral("/kwin_wayland");
    if (!QFile::copy(kwin, copy) ||
        !QFile::setPermissions(copy, QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner)) {
        failure_ = QStringLiteral("could not copy kwin_wayland");
        return false;
    }
    return startBus() && startCompositor();
}

bool KWinSession::startBus() {
    bus_ = std::make_unique<QProcess>();
    bus_->setProcessEnvironment(environment_);
    bus_->setProcessChannelMode(QProcess::SeparateChannels);
    // Services the bus starts (the portals) inherit its environment, so they find this session.
    bus_->start(QStringLiteral("dbus-daemon"), {QStringLiteral("--session"), QStringLiteral("--nofork"),
                                                QStringLiteral("--print-address=1")});
    if (!bus_->waitForReadyRead(10'000)) {
        failure_ = QStringLiteral("the session bus did not start");
        return false;
    }
    busAddress_ = QString::fromUtf8(bus_->readLine().trimmed());
    environment_.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), busAddress_);
    return !busAddress_.isEmpty();
}

bool KWinSession::startCompositor() {
    compositor_ = std::make_unique<QProcess>();
    compositor_->setProcessEnvironment(environment_);
    compositor_->setProcessChannelMode(QProcess::MergedChannels);
    compositor_->setStandardOutputFile(directory_->path() + QStringLiteral("/kwin.log"));
    compositor_->start(directory_->path() + QStringLiteral("/kwin_wayland"),
                       {QStringLiteral("--virtual"), QStringLiteral("--no-lockscreen"),
                        QStringLiteral("--socket"), socketName, QStringLiteral("--width"),
                        QStringLiteral("1024"), QStringLiteral("--height"), QStringLiteral("768")});
    if (!compositor_->waitForStarted(10'000)) {
        failure_ = QStringLiteral("kwin_wayland did not start: ") + compositor_->errorString();
        return false;
    }
    // KWin owns the shortcut daemon's name once its input and shortcuts are set up.
    if (!waitForName(QStringLiteral("org.kde.kglobalaccel"), 30'000) || !QFile::exists(waylandSocketPath())) {
        failure_ =
            QStringLiteral("kwin_wayland did not come up: ") + QString::fromUtf8(compositorLog().right(2000));
        return false;
    }
    return true;
}

bool KWinSession::waitForName(const QString& name, int timeoutMs) {
    QDBusConnection bus = connect(QStringLiteral("parlune-kwin-session-watch"));
    const bool up = pumpUntil(
        [&] {
            if (compositor_->state() == QProcess::NotRunning) {
                return true;
            }
            return bus.interface()->isServiceRegistered(name).value();
        },
        timeoutMs);
    const bool registered = up && compositor_->state() != QProcess::NotRunning;
    QDBusConnection::disconnectFromBus(QStringLiteral("parlune-kwin-session-watch"));
    return registered;
}

QDBusConnection KWinSession::connect(const QString& name) const {
    return QDBusConnection::connectToBus(busAddress_, name);
}

std::unique_ptr<QProcess> KWinSession::launch(const QString& program, const QStringList& arguments) const {
    auto process = std::make_unique<QProcess>();
    process->setProcessEnvironment(environment_);
    process->setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process->start(program, arguments);
    return process;
}

QString KWinSession::waylandSocketPath() const {
    return directory_ ? directory_->path() + QLatin1Char('/') + socketName : QString();
}

QByteArray KWinSession::compositorLog() const {
    if (!directory_) {
        return {};
    }
    QFile log(directory_->path() + QStringLiteral("/kwin.log"));
    return log.open(QIODevice::ReadOnly) ? log.readAll() : QByteArray();
}

void KWinSession::endServicesStartedByBus() {
    // The portals the bus started do not all end with it (KDE's backend keeps running), so every
    // other client of this private bus is ended: asked first, then made to.
    const QString name = QStringLiteral("parlune-kwin-session-end");
    std::vector<pid_t> clients;
    {
        QDBusConnection bus = connect(name);
        QDBusConnectionInterface* daemon = bus.interface();
        const QStringList names = daemon ? daemon->registeredServiceNames().value() : QStringList{};
        for (const QString& client : names) {
            const uint pid = client.startsWith(u':') ? daemon->servicePid(client).value() : 0;
            if (pid != 0 && static_cast<qint64>(pid) != QCoreApplication::applicationPid()) {
                clients.push_back(static_cast<pid_t>(pid));
            }
        }
    }
    QDBusConnection::disconnectFromBus(name);
    for (pid_t pid : clients) {
        ::kill(pid, SIGTERM);
    }
    pumpUntil(
        [&] {
            return std::all_of(clients.begin(), clients.end(), [](pid_t pid) { return ::kill(pid, 0) != 0; });
        },
        3000);
    for (pid_t pid : clients) {
        ::kill(pid, SIGKILL);
    }
}

void KWinSession::stop() {
    if (bus_ && compositor_) {
        endServicesStartedByBus();
    }
    endProcess(compositor_);
    endProcess(bus_);
    directory_.reset();
}

} // namespace parlune::test
