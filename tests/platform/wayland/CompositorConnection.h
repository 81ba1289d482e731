#pragma once

#include "platform/wayland/WaylandConnection.h"
#include "support/RunTask.h"

#include <cstdio>
#include <memory>

namespace parlune::test {

// This process's connection to the test compositor, or null (with the reason on stderr). A
// compositor just started on a loaded machine may take seconds to answer its first client.
inline std::unique_ptr<wayland::WaylandConnection> connectToCompositor() {
    wayland::WaylandConnection::Opened opened = runTask(wayland::WaylandConnection::open(10000), 15000);
    if (auto* connection = std::get_if<std::unique_ptr<wayland::WaylandConnection>>(&opened)) {
        return std::move(*connection);
    }
    std::fprintf(stderr, "%s\n", qPrintable(std::get<QString>(opened)));
    return nullptr;
}

} // namespace parlune::test
