#pragma once

#include <QString>

#include <optional>

namespace parlune {

// Which display server the program was started under, which decides the desktop ports it uses.
class LinuxSession {
public:
    enum class Kind { x11, wayland, none };

    // From XDG_SESSION_TYPE, WAYLAND_DISPLAY and DISPLAY (passed in so tests need no environment).
    static Kind detect(const QString& sessionType, const QString& waylandDisplay, const QString& display);
    static Kind detectFromEnvironment();

    // Why no desktop ports can be had at all; nullopt where there is a display server.
    static std::optional<QString> missingDisplayReason(Kind kind);
};

} // namespace parlune
