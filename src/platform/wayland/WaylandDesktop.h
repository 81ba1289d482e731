#pragma once

#include "core/platform/HotKeyService.h"
#include "core/platform/KeyboardEvents.h"
#include "platform/linux/DesktopPorts.h"
#include "platform/wayland/WaylandCapabilities.h"

#include <QString>

#include <functional>
#include <memory>
#include <variant>

namespace parlune {
class LinuxMemoryPressureSource;
}

namespace parlune::atspi {
class AtspiAccessibility;
}

namespace parlune::x11 {
class X11Pasteboard;
class XcbConnection;
} // namespace parlune::x11

namespace parlune::wayland {

class DataControlPasteboard;
class WaylandConnection;
class WaylandPrimarySelection;

// Every port of a Wayland session, over one compositor connection. Each takes the best path the
// desktop offers (WaylandCapabilities): the shortcut and keyboard from the desktop's portals when
// the caller supplies them, else the command bound by the user and wlroots' virtual keyboard; the
// clipboard through data-control, else XWayland's CLIPBOARD; the frontmost application from sway's
// IPC, else from the accessibility bus's focus events. Creation fails with the capabilities'
// sentence where a rewrite cannot work at all.
class WaylandDesktop final : public DesktopPorts {
public:
    struct Options {
        // From the global-shortcuts portal, where the desktop has it.
        std::unique_ptr<HotKeyService> portalShortcuts;
        // Makes the keyboard of the remote-desktop portal, where the desktop offers one; it sends
        // keys only to the application the workspace reports in front.
        std::function<std::unique_ptr<KeyboardEvents>(Workspace&)> portalKeyboard;
    };
    using Result = std::variant<std::unique_ptr<WaylandDesktop>, QString>;
    // Over a connection whose globals are in (WaylandConnection::open()).
    static Result connect(std::unique_ptr<WaylandConnection> connection, Options options);

    ~WaylandDesktop() override;
    WaylandDesktop(const WaylandDesktop&) = delete;
    WaylandDesktop& operator=(const WaylandDesktop&) = delete;

    const WaylandCapabilities& capabilities() const { return *capabilities_; }

    HotKeyService* hotKeys() override { return hotKeys_.get(); }
    ShortcutPath shortcutPath() const override { return capabilities_->shortcutPath(); }
    Pasteboard& pasteboard() override { return *pasteboard_; }
    // Null where the clipboard does not carry the primary selection (XWayland's CLIPBOARD, wlroots'
    // data-control before version 2).
    PrimarySelection* primarySelection() override;
    KeyboardEvents& keyboard() override { return *keyboard_; }
    Workspace& workspace() override { return *workspace_; }
    AccessibilityApi& accessibility() override;
    MemoryPressureSource& memoryPressure() override;
    std::optional<QString> fetchOwnText() override;
    std::vector<QString> limitations() const override { return capabilities_->limitations(); }

private:
    WaylandDesktop() = default;

    std::unique_ptr<WaylandConnection> connection_;
    std::unique_ptr<x11::XcbConnection> xwayland_;
    std::unique_ptr<Workspace> workspace_;
    std::unique_ptr<Pasteboard> pasteboard_;
    DataControlPasteboard* dataControl_ = nullptr;
    std::unique_ptr<WaylandPrimarySelection> primarySelection_;
    x11::X11Pasteboard* xwaylandClipboard_ = nullptr;
    std::unique_ptr<KeyboardEvents> keyboard_;
    std::unique_ptr<HotKeyService> hotKeys_;
    std::unique_ptr<atspi::AtspiAccessibility> accessibility_;
    std::unique_ptr<LinuxMemoryPressureSource> memoryPressure_;
    std::unique_ptr<WaylandCapabilities> capabilities_;
};

} // namespace parlune::wayland
