#pragma once

#include <QDBusConnection>
#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <memory>
#include <optional>
#include <vector>

namespace parlune::test {

// A tray host on the session bus, as a desktop panel is one: it owns
// org.kde.StatusNotifierWatcher, says a host is registered, and records the items that register.
// It also reads and clicks an item's menu (com.canonical.dbusmenu), as a panel does on a click.
class StatusNotifierHost {
public:
    struct MenuEntry {
        int id = 0;
        QString label;
        bool enabled = true;
        bool visible = true;
        int toggleState = -1; // -1: not a toggle; 0 off; 1 on
        QString type;         // "separator" or empty
        std::vector<MenuEntry> children;
    };

    StatusNotifierHost();
    ~StatusNotifierHost();

    // False when the name could not be taken (another host runs).
    bool start();
    const QStringList& items() const;

    // The item's menu, read through its Menu property and GetLayout; nullopt when unreadable.
    static std::optional<MenuEntry> readMenu(const QString& itemService);
    // Sends the "clicked" event a panel sends for a chosen entry.
    static bool click(const QString& itemService, int id);
    static std::optional<QVariant> itemProperty(const QString& itemService, const QString& name);

private:
    class Watcher;
    std::unique_ptr<Watcher> watcher_;
};

} // namespace parlune::test
