#pragma once

#include "core/platform/Workspace.h"

namespace parlune::test {

// A workspace whose application in front is whatever the test says; it opens nothing.
class FixedFrontApplication final : public Workspace {
public:
    ProcessId front = 0;
    QString identifier = QStringLiteral("editor");

    std::optional<RunningApplication> frontmostApplication() override {
        return RunningApplication{front, identifier};
    }
    std::optional<QString> bundleIdentifier(ProcessId) override { return std::nullopt; }
    bool openUrl(const QString&) override { return false; }
    bool openApplication(const QString&) override { return false; }
};

} // namespace parlune::test
