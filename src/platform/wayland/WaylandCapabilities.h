#pragma once

#include "platform/linux/DesktopPorts.h"

#include <QString>

#include <optional>
#include <vector>

namespace parlune::wayland {

// What a Wayland desktop offers the ports, found at start-up.
struct WaylandFacts {
    QString desktop;              // XDG_CURRENT_DESKTOP: "sway", "GNOME", "KDE", "Hyprland", …
    bool dataControl = false;     // ext_data_control_v1 or zwlr_data_control_v1
    bool xwayland = false;        // an X server reachable through DISPLAY
    bool virtualKeyboard = false; // zwp_virtual_keyboard_v1, and it took our keymap
    bool portalKeyboard = false;  // a keyboard from the remote-desktop portal was supplied
    bool portalShortcuts = false; // a shortcut from the global-shortcuts portal was supplied
    bool swayIpc = false;         // the compositor tells which application is in front; else
                                  // the accessibility bus's focus events do
};

// Which path each port takes on a Wayland desktop, and the sentences the user reads where the
// desktop refuses one: what is missing and what the user can do.
class WaylandCapabilities {
public:
    enum class Clipboard { dataControl, xwayland, none };
    enum class Keys { portal, virtualKeyboard, none };

    explicit WaylandCapabilities(WaylandFacts facts) : facts_(std::move(facts)) {}

    Clipboard clipboard() const;
    Keys keys() const;
    ShortcutPath shortcutPath() const;
    // The first thing that keeps a rewrite from working at all; nullopt when nothing does.
    std::optional<QString> blockingProblem() const;
    std::vector<QString> limitations() const;

private:
    QString desktopName() const;
    bool isDesktop(const char* name) const;

    WaylandFacts facts_;
};

} // namespace parlune::wayland
