#include "desktop/SimulatedWorkspace.h"

#include "desktop/SimulatedDesktop.h"

namespace parlune::test {

std::optional<RunningApplication> SimulatedWorkspace::frontmostApplication() {
    const auto front = desktop_.frontmost();
    if (!front) {
        return std::nullopt;
    }
    const SimulatedApplication* app = desktop_.application(*front);
    if (!app) {
        return std::nullopt;
    }
    return RunningApplication{app->pid, app->identifier};
}

std::optional<QString> SimulatedWorkspace::bundleIdentifier(ProcessId process) {
    const SimulatedApplication* app = desktop_.application(process);
    return app ? app->identifier : std::nullopt;
}

bool SimulatedWorkspace::openUrl(const QString& url) {
    if (!desktop_.opensUrls) {
        return false;
    }
    desktop_.openedUrls.push_back(url);
    return true;
}

bool SimulatedWorkspace::openApplication(const QString& path) {
    desktop_.openedApplications.push_back(path);
    return true;
}

} // namespace parlune::test
