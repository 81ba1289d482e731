#include "platform/x11/X11Session.h"

#include <QProcessEnvironment>

namespace parlune::x11 {

X11Session::Kind X11Session::detect(const QString& sessionType, const QString& waylandDisplay,
                                    const QString& display) {
    // Under Wayland an X server (Xwayland) may still be reachable, but it sees neither the keys
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

X11Session::Kind X11Session::detectFromEnvironment() {
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    return detect(environment.value(QStringLiteral("XDG_SESSION_TYPE")),
                  environment.value(QStringLiteral("WAYLAND_DISPLAY")),
                  environment.value(QStringLiteral("DISPLAY")));
}

std::optional<QString> X11Session::unsupportedReason(Kind kind) {
    switch (kind) {
    case Kind::x11:
        return std::nullopt;
    case Kind::wayland:
        return QStringLiteral("This is a Wayland session. Parlune can only register its shortcut and capture "
                              "text in an X11 session; choose an X11 (Xorg) session at login.");
    case Kind::none:
        return QStringLiteral(
            "No X11 display was found (DISPLAY is not set). Parlune needs an X11 desktop session.");
    }
    return std::nullopt;
}

} // namespace parlune::x11
