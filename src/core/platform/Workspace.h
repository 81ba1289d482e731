#pragma once

#include "core/platform/ProcessId.h"

#include <QString>

#include <optional>

namespace parlune {

struct RunningApplication {
    ProcessId processIdentifier = 0;
    // The application's identifier (on Linux the window's WM_CLASS class name); absent if none.
    std::optional<QString> bundleIdentifier;
};

// The desktop's view of running applications.
class Workspace {
public:
    virtual ~Workspace() = default;
    // The application the user is working in now; nullopt when none can be determined.
    virtual std::optional<RunningApplication> frontmostApplication() = 0;
    // The identifier of a running application by process; nullopt when unknown or not running.
    virtual std::optional<QString> bundleIdentifier(ProcessId process) = 0;
    // Returns false when the desktop could not open it.
    virtual bool openUrl(const QString& url) = 0;
    virtual bool openApplication(const QString& path) = 0;
};

} // namespace parlune
