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
    } else {
        portals.absent.emplace_back(QStringLiteral("global_shortcuts"), shortcuts->absence());
        if (shortcuts->absence() == QLatin1String("no_answer")) {
            // The same service serves both: it would keep us waiting as long again.
            portals.absent.emplace_back(QStringLiteral("remote_desktop"), shortcuts->absence());
            co_return portals;
        }
    }
    const portal::PortalProbe keyboard = co_await portal::PortalRemoteDesktopKeyboard::keyboardOffer(bus);
    portals.keyboardOffered = keyboard.offered();
    if (!keyboard.offered()) {
        portals.absent.emplace_back(QStringLiteral("remote_desktop"), keyboard.absence);
    }
    co_return portals;
}

} // namespace parlune::app
