#pragma once

#include "core/platform/Workspace.h"

namespace parlune::test {

class SimulatedDesktop;

// Frontmost and running applications of the simulated desktop; records what it was asked to open.
class SimulatedWorkspace final : public Workspace {
public:
    explicit SimulatedWorkspace(SimulatedDesktop& desktop) : desktop_(desktop) {}

    std::optional<RunningApplication> frontmostApplication() override;
    std::optional<QString> bundleIdentifier(ProcessId process) override;
    bool openUrl(const QString& url) override;
    bool openApplication(const QString& path) override;

private:
    SimulatedDesktop& desktop_;
};

} // namespace parlune::test
