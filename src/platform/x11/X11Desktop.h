#pragma once

#include "platform/linux/DesktopPorts.h"

#include <QString>

#include <memory>
#include <variant>

namespace parlune {
class LinuxMemoryPressureSource;
}

namespace parlune::atspi {
class AtspiAccessibility;
}

namespace parlune::x11 {

class EwmhWorkspace;
class X11Pasteboard;
class X11PrimarySelection;
class XTestKeyboardEvents;
class XcbConnection;
class XcbHotKeyService;

// Every Linux/X11 port, created together over one X connection for the application to hand to the
// core. Creation fails with a sentence for the user where the ports cannot work: no X server, or
// one without the XFixes and XTest extensions. Requires a QGuiApplication on the xcb platform.
class X11Desktop final : public DesktopPorts {
public:
    using Result = std::variant<std::unique_ptr<X11Desktop>, QString>;
    static Result connect();

    ~X11Desktop() override;
    X11Desktop(const X11Desktop&) = delete;
    X11Desktop& operator=(const X11Desktop&) = delete;

    HotKeyService* hotKeys() override;
    ShortcutPath shortcutPath() const override { return {}; }
    Pasteboard& pasteboard() override;
    PrimarySelection* primarySelection() override;
    KeyboardEvents& keyboard() override;
    Workspace& workspace() override;
    AccessibilityApi& accessibility() override;
    MemoryPressureSource& memoryPressure() override;
    std::optional<QString> fetchOwnText() override;

private:
    X11Desktop() = default;

    std::unique_ptr<XcbConnection> connection_;
    std::unique_ptr<XcbHotKeyService> hotKeys_;
    std::unique_ptr<EwmhWorkspace> workspace_;
    std::unique_ptr<X11Pasteboard> pasteboard_;
    std::unique_ptr<X11PrimarySelection> primarySelection_;
    std::unique_ptr<XTestKeyboardEvents> keyboard_;
    std::unique_ptr<atspi::AtspiAccessibility> accessibility_;
    std::unique_ptr<LinuxMemoryPressureSource> memoryPressure_;
};

} // namespace parlune::x11
