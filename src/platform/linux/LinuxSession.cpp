#include "platform/linux/LinuxSession.h"

#include <QProcessEnvironment>

namespace parlune {

LinuxSession::Kind LinuxSession::detect(const QString& sessionType, const QString& waylandDisplay,
                                        const QString& display) {
    // Under Wayland an X server (XWayland) may still be reachable, but it sees neither the keys
    // typed into nor the selections of native Wayland windows: such a session is Wayland.
    if (!waylandDisplay.isEmpty() ||
        sessionType.compare(QLatin1String("wayland"), Qt::CaseInsensitive) == 0) {
        return Kind::wayland;
    }
    if (!display.isEmpty()) {
        return Kind::x11;
    }
    return Kind::none;
}

LinuxSession::Kind LinuxSession::detectFromEnvironment() {
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    return detect(environment.value(QStringLiteral("XDG_SESSION_TYPE")),
                  environment.value(QStringLiteral("WAYLAND_DISPLAY")),
                  environment.value(QStringLiteral("DISPLAY")));
}

std::optional<QString> LinuxSession::missingDisplayReason(Kind kind) {
    if (kind != Kind::none) {
        return std::nullopt;
    }
    return QStringLiteral(
        "No display was found (neither WAYLAND_DISPLAY nor DISPLAY is set). Parlune needs a "
        "graphical desktop session.");
}

} // namespace parlune
