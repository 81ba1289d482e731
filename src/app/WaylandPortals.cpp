#include "app/WaylandPortals.h"

#include "platform/linux/portal/PortalRemoteDesktopKeyboard.h"
#include "platform/x11/X11KeyTable.h"

namespace parlune::app {

QCoro::Task<WaylandPortals> WaylandPortals::probe(QDBusConnection bus) {
    WaylandPortals portals;
    auto shortcuts = std::make_unique<portal::PortalGlobalShortcuts>(
        bus, &x11::X11KeyTable::keysymFor, QStringLiteral("Rewrite the selected text"));
    if (co_await shortcuts->probe() == portal::PortalGlobalShortcuts::Availability::available) {
        portals.shortcuts = std::move(shortcuts);
    }
    portals.keyboardOffered = (co_await portal::PortalRemoteDesktopKeyboard::offeredVersion(bus)).has_value();
    co_return portals;
}

} // namespace parlune::app
