#include "platform/wayland/WaylandCapabilities.h"

#include <QStringList>

namespace parlune::wayland {

namespace {

const QString command = QStringLiteral("parlune --rewrite-selection");
const QString x11Advice = QStringLiteral("or choose an X11 session (for example \"GNOME on Xorg\") at login");

} // namespace

bool WaylandCapabilities::isDesktop(const char* name) const {
    // XDG_CURRENT_DESKTOP is a colon-separated list ("ubuntu:GNOME").
    const QStringList names = facts_.desktop.split(QLatin1Char(':'), Qt::SkipEmptyParts);
    return names.contains(QLatin1String(name), Qt::CaseInsensitive);
}

QString WaylandCapabilities::desktopName() const {
    return facts_.desktop.isEmpty() ? QStringLiteral("This Wayland desktop")
                                    : QStringLiteral("This Wayland desktop (%1)").arg(facts_.desktop);
}

WaylandCapabilities::Clipboard WaylandCapabilities::clipboard() const {
    if (facts_.dataControl) {
        return Clipboard::dataControl;
    }
    // The compositor bridges XWayland's CLIPBOARD to Wayland clients, both ways.
    return facts_.xwayland ? Clipboard::xwayland : Clipboard::none;
}

WaylandCapabilities::Keys WaylandCapabilities::keys() const {
    if (facts_.portalKeyboard) {
        return Keys::portal;
    }
    return facts_.virtualKeyboard ? Keys::virtualKeyboard : Keys::none;
}

ShortcutPath WaylandCapabilities::shortcutPath() const {
    if (facts_.portalShortcuts) {
        return {ShortcutPath::Kind::registered, {}};
    }
    QString where;
    if (isDesktop("sway")) {
        where = QStringLiteral(
                    "Add the line \"bindsym Mod1+space exec %1\" to ~/.config/sway/config and reload sway "
                    "(swaymsg reload).")
                    .arg(command);
    } else if (isDesktop("Hyprland")) {
        where =
            QStringLiteral("Add the line \"bind = ALT, space, exec, %1\" to ~/.config/hypr/hyprland.conf.")
                .arg(command);
    } else if (isDesktop("GNOME")) {
        where = QStringLiteral(
                    "Open Settings → Keyboard → View and Customize Shortcuts → Custom Shortcuts, add a "
                    "shortcut with the command \"%1\" and press the keys you want.")
                    .arg(command);
    } else if (isDesktop("KDE")) {
        where = QStringLiteral(
                    "Open System Settings → Keyboard → Shortcuts, choose Add New → Command or Script, enter "
                    "\"%1\" and assign the keys you want.")
                    .arg(command);
    } else {
        where = QStringLiteral("Bind the command \"%1\" to a key in your desktop's keyboard settings.")
                    .arg(command);
    }
    return {
        ShortcutPath::Kind::boundCommand,
        QStringLiteral("%1 does not let programs register a global shortcut. %2").arg(desktopName(), where)};
}

std::optional<QString> WaylandCapabilities::blockingProblem() const {
    if (clipboard() == Clipboard::none) {
        return QStringLiteral(
                   "%1 lets no program outside the focused window read or set the clipboard (it lacks "
                   "the data-control protocol), and no XWayland server is running to reach it through. "
                   "Enable XWayland, %2.")
            .arg(desktopName(), x11Advice);
    }
    if (keys() == Keys::none) {
        return QStringLiteral(
                   "%1 gives Parlune no way to press Ctrl+C and Ctrl+V in other applications: it offers "
                   "neither the remote-desktop portal's keyboard nor the virtual-keyboard protocol. Use "
                   "a desktop that offers one (KDE Plasma, sway, Hyprland), %2.")
            .arg(desktopName(), x11Advice);
    }
    return std::nullopt;
}

std::vector<QString> WaylandCapabilities::limitations() const {
    std::vector<QString> notes;
    if (clipboard() == Clipboard::xwayland) {
        notes.push_back(QStringLiteral("The clipboard is reached through XWayland, because %1 lacks the "
                                       "data-control protocol.")
                            .arg(desktopName().replace(0, 1, QLatin1Char('t'))));
    }
    if (clipboard() == Clipboard::dataControl) {
        notes.push_back(QStringLiteral("Your clipboard, once put back, is served by Parlune: it empties when "
                                       "Parlune quits unless a clipboard manager keeps it."));
    }
    if (!facts_.swayIpc) {
        notes.push_back(QStringLiteral(
            "Parlune learns which application is in front from the accessibility bus, so it recognises "
            "only applications that report their focus there: GTK applications do; Qt applications "
            "do when accessibility is on in the desktop's settings or QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1 "
            "is set for them."));
    }
    return notes;
}

} // namespace parlune::wayland
