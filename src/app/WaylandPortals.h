#pragma once

#include "platform/linux/portal/PortalGlobalShortcuts.h"

#include <QCoro/QCoroTask>
#include <QDBusConnection>

#include <memory>
#include <utility>
#include <vector>

namespace parlune::app {

// What the desktop's portals offer for the shortcut and for synthetic keys, asked before the
// Wayland ports are made, since the path each port takes depends on it. The questions are
// asynchronous and bounded: a portal that does not answer in time counts as absent.
struct WaylandPortals {
    // Probed and offered; null where the desktop has no GlobalShortcuts portal.
    std::unique_ptr<portal::PortalGlobalShortcuts> shortcuts;
    // The RemoteDesktop portal offers a keyboard.
    bool keyboardOffered = false;
    // For the diagnostics log: each portal found absent, with the reason (PortalProbe's word).
    std::vector<std::pair<QString, QString>> absent;

    static QCoro::Task<WaylandPortals> probe(QDBusConnection bus);
};

} // namespace parlune::app
