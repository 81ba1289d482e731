#pragma once

#include "core/platform/PrimarySelection.h"

#include <cstdint>
#include <optional>

namespace parlune {
class Workspace;
}

namespace parlune::wayland {

class DataControlPasteboard;

// The primary selection through data-control, for terminals, which are never sent a copy key.
// Wayland does not say which client set it; a client may set it only while it has the keyboard
// focus, so its holder is taken to be the application that was in front when it changed (a
// clipboard manager that sets it without focus is the exception this cannot see).
class WaylandPrimarySelection final : public PrimarySelection {
public:
    // Both must outlive this object; the pasteboard must carry the primary selection.
    WaylandPrimarySelection(DataControlPasteboard& pasteboard, Workspace& workspace);
    ~WaylandPrimarySelection() override;
    WaylandPrimarySelection(const WaylandPrimarySelection&) = delete;
    WaylandPrimarySelection& operator=(const WaylandPrimarySelection&) = delete;

    QCoro::Task<std::optional<QString>> textHeldBy(ProcessId process) override;

private:
    DataControlPasteboard& pasteboard_;
    Workspace& workspace_;
    std::optional<ProcessId> holder_;
    std::uint64_t changes_ = 0;
};

} // namespace parlune::wayland
