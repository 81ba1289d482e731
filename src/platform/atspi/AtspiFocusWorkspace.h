#pragma once

#include "core/platform/Workspace.h"

#include <memory>
#include <optional>

namespace parlune::atspi {

class AtspiWorker;

// The frontmost application where the display server does not say which it is (Wayland without
// sway's IPC): the application that owns the accessible object that last took focus or whose
// window was last activated, as AT-SPI reports it. Events arrive and are resolved (process id from
// the bus daemon, toolkit) on the accessibility worker; the main thread only reads the last answer.
//
// The application identifier is the process's executable name (the last part of
// /proc/<pid>/exe, e.g. "konsole", "gnome-text-editor"), which the compatibility registry keys on.
class AtspiFocusWorkspace final : public Workspace {
public:
    // Shares the worker with the accessibility port: libatspi allows one thread per process.
    explicit AtspiFocusWorkspace(std::shared_ptr<AtspiWorker> worker);
    ~AtspiFocusWorkspace() override;
    AtspiFocusWorkspace(const AtspiFocusWorkspace&) = delete;
    AtspiFocusWorkspace& operator=(const AtspiFocusWorkspace&) = delete;

    std::optional<RunningApplication> frontmostApplication() override;
    std::optional<QString> bundleIdentifier(ProcessId process) override;
    bool openUrl(const QString& url) override;
    bool openApplication(const QString& path) override;

    // The toolkit of the frontmost application ("gtk", "Qt", …) as it told the bus; empty if none.
    QString frontmostToolkit() const;
    // How many focus changes have been taken in; tests wait for the next one.
    int focusReports() const;

    // The identifier of a running process: its executable's file name; nullopt if it is gone.
    static std::optional<QString> executableName(ProcessId process);

    struct State;

private:
    std::shared_ptr<AtspiWorker> worker_;
    std::shared_ptr<State> state_;
};

} // namespace parlune::atspi
