#pragma once

#include <QString>

#include <optional>

namespace parlune::x11 {

// Which display server the program was started under, and whether the X11 ports can work there.
class X11Session {
public:
    enum class Kind { x11, wayland, none };

    // From XDG_SESSION_TYPE, WAYLAND_DISPLAY and DISPLAY (passed in so tests need no environment).
    static Kind detect(const QString& sessionType, const QString& waylandDisplay, const QString& display);
    static Kind detectFromEnvironment();

    // Why global capture cannot work in this session; nullopt on an X11 session.
    static std::optional<QString> unsupportedReason(Kind kind);
};

} // namespace parlune::x11
