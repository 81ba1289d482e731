#pragma once

#include "core/modes/RewriteMode.h"

#include <QString>

#include <vector>

namespace parlune {

// One entry of the tray menu, free of any toolkit.
struct StatusMenuItem {
    enum class Kind { action, separator, submenu };

    Kind kind = Kind::action;
    QString title;
    // What choosing it does: "selectRewriteMode", "showSettings", "checkForUpdates" or "quit";
    // empty for separators and submenus.
    QString actionId;
    // The rewrite mode's raw value for "selectRewriteMode".
    QString representedValue;
    QString keyEquivalent;
    bool checked = false;
    bool enabled = true;
    std::vector<StatusMenuItem> children;
    // The title of the menu a submenu item opens.
    QString submenuTitle;
};

// The tray menu: the rewrite style with the current one checked, settings, updates and quit.
class StatusMenuModel {
public:
    static constexpr const char* selectRewriteModeAction = "selectRewriteMode";
    static constexpr const char* showSettingsAction = "showSettings";
    static constexpr const char* checkForUpdatesAction = "checkForUpdates";
    static constexpr const char* quitAction = "quit";

    StatusMenuModel() = delete;

    // "Check for Updates…" is disabled only while an updater exists and is busy checking.
    static std::vector<StatusMenuItem> build(RewriteMode current, bool hasUpdater, bool updaterCanCheckNow);
};

} // namespace parlune
