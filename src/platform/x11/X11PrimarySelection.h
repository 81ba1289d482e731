#pragma once

#include "core/platform/PrimarySelection.h"
#include "platform/x11/X11Pasteboard.h"

namespace parlune::x11 {

class EwmhWorkspace;
class XcbConnection;

// The PRIMARY selection, read asynchronously like the clipboard. Its owner is usually a child
// window of the application's top-level window (xterm's text area), so the owning process is
// found by walking up to the first window that names its process.
class X11PrimarySelection final : public PrimarySelection {
public:
    X11PrimarySelection(XcbConnection& connection, EwmhWorkspace& workspace);

    QCoro::Task<std::optional<QString>> textHeldBy(ProcessId process) override;

    // The process of the window holding PRIMARY now; nullopt when nobody holds it or no window
    // up to the root names a process.
    std::optional<ProcessId> holder();

private:
    XcbConnection& x_;
    EwmhWorkspace& workspace_;
    X11Pasteboard reader_;
};

} // namespace parlune::x11
