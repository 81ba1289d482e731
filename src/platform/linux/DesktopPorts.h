#pragma once

#include <QString>

#include <optional>
#include <vector>

namespace parlune {

class AccessibilityApi;
class HotKeyService;
class KeyboardEvents;
class MemoryPressureSource;
class Pasteboard;
class PrimarySelection;
class Workspace;

// How the global shortcut reaches the program in this session.
struct ShortcutPath {
    enum class Kind {
        registered,   // the program registers the key itself (an X11 grab, the shortcuts portal)
        boundCommand, // the user binds `parlune --rewrite-selection` in the desktop's own settings
    };
    Kind kind = Kind::registered;
    // For a bound command: the exact command and where to put it, for the settings window.
    QString instructions;
};

// Every port of one desktop session, created together for the application to hand to the core:
// the X11 ports on an X11 session, the Wayland ones (with XWayland pieces where they help) on a
// Wayland session.
class DesktopPorts {
public:
    virtual ~DesktopPorts() = default;

    // Null where the user binds a command instead (see shortcutPath()).
    virtual HotKeyService* hotKeys() = 0;
    virtual ShortcutPath shortcutPath() const = 0;
    virtual Pasteboard& pasteboard() = 0;
    // How terminals' selections are captured; null where the session offers none.
    virtual PrimarySelection* primarySelection() = 0;
    virtual KeyboardEvents& keyboard() = 0;
    virtual Workspace& workspace() = 0;
    virtual AccessibilityApi& accessibility() = 0;
    virtual MemoryPressureSource& memoryPressure() = 0;
    // Our own clipboard text, for a window of this very program that pastes it; counts as a fetch.
    virtual std::optional<QString> fetchOwnText() = 0;
    // What works only in part on this desktop, one sentence each, for the settings window.
    virtual std::vector<QString> limitations() const { return {}; }
};

} // namespace parlune
