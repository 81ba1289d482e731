#include "platform/x11/EwmhWorkspace.h"

#include "platform/x11/XcbConnection.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QUrl>

#include <signal.h>

#include <cerrno>
#include <cstring>

namespace parlune::x11 {

namespace {

std::vector<std::uint32_t> cardinals(const std::optional<XcbConnection::Property>& property) {
    std::vector<std::uint32_t> values;
    if (!property || property->format != 32) {
        return values;
    }
    values.resize(static_cast<std::size_t>(property->bytes.size()) / 4);
    std::memcpy(values.data(), property->bytes.constData(), values.size() * 4);
    return values;
}

bool isRunning(ProcessId process) {
    return process > 0 && (::kill(process, 0) == 0 || errno == EPERM);
}

} // namespace

EwmhWorkspace::EwmhWorkspace(XcbConnection& connection) : x_(connection) {}

std::optional<xcb_window_t> EwmhWorkspace::activeWindow() {
    const auto values = cardinals(x_.property(x_.root(), x_.atom("_NET_ACTIVE_WINDOW")));
    if (values.empty() || values.front() == XCB_NONE) {
        return std::nullopt;
    }
    return values.front();
}

std::optional<ProcessId> EwmhWorkspace::processOf(xcb_window_t window) {
    const auto values = cardinals(x_.property(window, x_.atom("_NET_WM_PID")));
    if (values.empty() || values.front() == 0) {
        return std::nullopt;
    }
    return static_cast<ProcessId>(values.front());
}

std::optional<QString> EwmhWorkspace::classNameOf(xcb_window_t window) {
    // WM_CLASS holds two NUL-terminated strings: the instance name, then the class name.
    const auto property = x_.property(window, XCB_ATOM_WM_CLASS);
    if (!property || property->format != 8) {
        return std::nullopt;
    }
    const QList<QByteArray> parts = property->bytes.split('\0');
    if (parts.size() < 2 || parts.at(1).isEmpty()) {
        return std::nullopt;
    }
    return QString::fromUtf8(parts.at(1));
}

std::vector<xcb_window_t> EwmhWorkspace::clientWindows() {
    const auto values = cardinals(x_.property(x_.root(), x_.atom("_NET_CLIENT_LIST")));
    return {values.begin(), values.end()};
}

std::optional<RunningApplication> EwmhWorkspace::frontmostApplication() {
    const std::optional<xcb_window_t> window = activeWindow();
    if (!window) {
        return std::nullopt;
    }
    const std::optional<ProcessId> process = processOf(*window);
    if (!process) {
        return std::nullopt;
    }
    return RunningApplication{*process, classNameOf(*window)};
}

std::optional<QString> EwmhWorkspace::bundleIdentifier(ProcessId process) {
    if (!isRunning(process)) {
        return std::nullopt;
    }
    if (const auto active = activeWindow(); active && processOf(*active) == process) {
        if (auto name = classNameOf(*active)) {
            return name;
        }
    }
    for (xcb_window_t window : clientWindows()) {
        if (processOf(window) == process) {
            if (auto name = classNameOf(window)) {
                return name;
            }
        }
    }
    return std::nullopt;
}

bool EwmhWorkspace::hasHandlerForScheme(const QString& scheme) {
    // xdg-open is started detached, so its own failure comes too late to report; what it would
    // look up is the desktop's table of scheme handlers, which is read here instead.
    const QString wanted = QStringLiteral("x-scheme-handler/") + scheme.toLower();
    QStringList files;
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString configHome =
        environment.value(QStringLiteral("XDG_CONFIG_HOME"), QDir::homePath() + QStringLiteral("/.config"));
    files << configHome + QStringLiteral("/mimeapps.list");
    const QString dataHome = environment.value(QStringLiteral("XDG_DATA_HOME"),
                                               QDir::homePath() + QStringLiteral("/.local/share"));
    QStringList dataDirs =
        environment.value(QStringLiteral("XDG_DATA_DIRS"), QStringLiteral("/usr/local/share:/usr/share"))
            .split(QLatin1Char(':'), Qt::SkipEmptyParts);
    dataDirs.prepend(dataHome);
    for (const QString& dir : dataDirs) {
        files << dir + QStringLiteral("/applications/mimeapps.list")
              << dir + QStringLiteral("/applications/mimeinfo.cache");
    }
    for (const QString& path : files) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
            continue;
        }
        while (!file.atEnd()) {
            const QString line = QString::fromUtf8(file.readLine()).trimmed();
            const qsizetype equals = line.indexOf(QLatin1Char('='));
            if (equals > 0 && line.left(equals).trimmed().compare(wanted, Qt::CaseInsensitive) == 0 &&
                !line.mid(equals + 1).trimmed().isEmpty()) {
                return true;
            }
        }
    }
    return false;
}

bool EwmhWorkspace::openUrl(const QString& url) {
    const QUrl parsed(url.trimmed(), QUrl::StrictMode);
    if (!parsed.isValid() || parsed.scheme().isEmpty()) {
        return false;
    }
    static const QStringList everywhere{QStringLiteral("file"), QStringLiteral("http"),
                                        QStringLiteral("https")};
    if (!everywhere.contains(parsed.scheme().toLower()) && !hasHandlerForScheme(parsed.scheme())) {
        return false;
    }
    return QProcess::startDetached(QStringLiteral("xdg-open"), {parsed.toString()});
}

bool EwmhWorkspace::openApplication(const QString& path) {
    const QFileInfo info(path);
    if (!info.isFile() || !info.isExecutable()) {
        return false;
    }
    return QProcess::startDetached(info.absoluteFilePath(), {});
}

} // namespace parlune::x11
