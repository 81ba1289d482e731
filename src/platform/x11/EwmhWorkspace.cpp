#include "platform/x11/EwmhWorkspace.h"

#include "platform/linux/DesktopLauncher.h"
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

bool EwmhWorkspace::openUrl(const QString& url) {
    return DesktopLauncher::openUrl(url);
}

bool EwmhWorkspace::openApplication(const QString& path) {
    return DesktopLauncher::openApplication(path);
}

} // namespace parlune::x11
