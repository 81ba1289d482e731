#include "platform/x11/X11PrimarySelection.h"

#include "platform/x11/EwmhWorkspace.h"
#include "platform/x11/XcbConnection.h"

namespace parlune::x11 {

namespace {
// Real window trees are shallow; a bound keeps a broken one from looping.
constexpr int maxAncestors = 16;
} // namespace

X11PrimarySelection::X11PrimarySelection(XcbConnection& connection, EwmhWorkspace& workspace)
    : x_(connection), workspace_(workspace), reader_(connection, "PRIMARY") {}

std::optional<ProcessId> X11PrimarySelection::holder() {
    xcb_connection_t* c = x_.raw();
    xcb_window_t window = x_.selectionOwner(XCB_ATOM_PRIMARY);
    for (int depth = 0; window != XCB_NONE && window != x_.root() && depth < maxAncestors; ++depth) {
        if (const std::optional<ProcessId> process = workspace_.processOf(window)) {
            return process;
        }
        const XcbReply<xcb_query_tree_reply_t> tree(
            xcb_query_tree_reply(c, xcb_query_tree(c, window), nullptr));
        window = tree ? tree->parent : XCB_NONE;
    }
    x_.scheduleDispatch();
    return std::nullopt;
}

QCoro::Task<std::optional<QString>> X11PrimarySelection::textHeldBy(ProcessId process) {
    if (holder() != process) {
        co_return std::nullopt;
    }
    std::optional<QString> text = co_await reader_.stringAsync();
    // The holder may have changed while it answered; only its own answer counts.
    if (holder() != process) {
        co_return std::nullopt;
    }
    co_return text;
}

} // namespace parlune::x11
