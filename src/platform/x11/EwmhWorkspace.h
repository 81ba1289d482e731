#pragma once

#include "core/platform/Workspace.h"

#include <xcb/xcb.h>

#include <optional>
#include <vector>

namespace parlune::x11 {

class XcbConnection;

// Running applications as an EWMH window manager describes them. The frontmost application is
// the owner of _NET_ACTIVE_WINDOW (not the X input focus, which without a window manager is just
// PointerRoot): its process from _NET_WM_PID and its identifier from WM_CLASS. On Linux the
// application identifier is the WM_CLASS class name ("Mousepad", "firefox"), the one stable name
// an X application gives itself; it is what the compatibility registry lists.
class EwmhWorkspace final : public Workspace {
public:
    explicit EwmhWorkspace(XcbConnection& connection);

    std::optional<RunningApplication> frontmostApplication() override;
    std::optional<QString> bundleIdentifier(ProcessId process) override;
    // file, http and https always go to xdg-open; other schemes only when a handler is listed.
    bool openUrl(const QString& url) override;
    bool openApplication(const QString& path) override;

    // The active window; nullopt without a window manager that announces one.
    std::optional<xcb_window_t> activeWindow();
    std::optional<ProcessId> processOf(xcb_window_t window);
    std::optional<QString> classNameOf(xcb_window_t window);

private:
    std::vector<xcb_window_t> clientWindows();

    XcbConnection& x_;
};

} // namespace parlune::x11
