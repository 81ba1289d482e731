#include "platform/wayland/WaylandPrimarySelection.h"

#include "core/platform/Workspace.h"
#include "platform/wayland/DataControlPasteboard.h"

namespace parlune::wayland {

WaylandPrimarySelection::WaylandPrimarySelection(DataControlPasteboard& pasteboard, Workspace& workspace)
    : pasteboard_(pasteboard), workspace_(workspace) {
    pasteboard_.setPrimaryChangedHandler([this] {
        ++changes_;
        const std::optional<RunningApplication> front = workspace_.frontmostApplication();
        holder_ = front ? std::optional<ProcessId>(front->processIdentifier) : std::nullopt;
    });
}

WaylandPrimarySelection::~WaylandPrimarySelection() {
    pasteboard_.setPrimaryChangedHandler(nullptr);
}

QCoro::Task<std::optional<QString>> WaylandPrimarySelection::textHeldBy(ProcessId process) {
    if (holder_ != process) {
        co_return std::nullopt;
    }
    const std::uint64_t asked = changes_;
    std::optional<QString> text = co_await pasteboard_.primaryTextAsync();
    // Set again while it answered: what was read may be another program's.
    if (changes_ != asked) {
        co_return std::nullopt;
    }
    co_return text;
}

} // namespace parlune::wayland
