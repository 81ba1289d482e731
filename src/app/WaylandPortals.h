#pragma once

#include "platform/linux/portal/PortalGlobalShortcuts.h"

#include <QCoro/QCoroTask>
#include <QDBusConnection>

#include <memory>

namespace parlune::app {

// What the desktop's portals offer for the shortcut and for synthetic keys, asked before the
// Wayland ports are made, since the path each port takes depends on it. The questions are
// asynchronous: the event loop runs while the portal answers.
struct WaylandPortals {
    // Probed and offered; null where the desktop has no GlobalShortcuts portal.
    std::unique_ptr<portal::PortalGlobalShortcuts> shortcuts;
    // The RemoteDesktop portal offers a keyboard.
    bool keyboardOffered = false;

    static QCoro::Task<WaylandPortals> probe(QDBusConnection bus);
};

} // namespace parlune::app
