#include "core/shell/StatusMenuModel.h"

namespace parlune {

namespace {

StatusMenuItem action(QString title, const char* actionId, QString keyEquivalent = {}) {
    StatusMenuItem item;
    item.title = std::move(title);
    item.actionId = QString::fromLatin1(actionId);
    item.keyEquivalent = std::move(keyEquivalent);
    return item;
}

StatusMenuItem separator() {
    StatusMenuItem item;
    item.kind = StatusMenuItem::Kind::separator;
    return item;
}

} // namespace

std::vector<StatusMenuItem> StatusMenuModel::build(RewriteMode current, bool hasUpdater,
                                                   bool updaterCanCheckNow) {
    StatusMenuItem style;
    style.kind = StatusMenuItem::Kind::submenu;
    style.title = QStringLiteral("Style");
    style.submenuTitle = QStringLiteral("Rewrite Style");
    for (const RewriteMode mode : rewrite_mode::allCases) {
        const std::string_view raw = rewrite_mode::rawValue(mode);
        const QString title = QString::fromUtf8(raw.data(), static_cast<qsizetype>(raw.size()));
        StatusMenuItem item = action(title, selectRewriteModeAction);
        item.representedValue = title;
        item.checked = mode == current;
        style.children.push_back(std::move(item));
    }

    StatusMenuItem updates = action(QStringLiteral("Check for Updates…"), checkForUpdatesAction);
    updates.enabled = !hasUpdater || updaterCanCheckNow;

    std::vector<StatusMenuItem> items;
    items.push_back(std::move(style));
    items.push_back(separator());
    items.push_back(action(QStringLiteral("Settings…"), showSettingsAction, QStringLiteral(",")));
    items.push_back(std::move(updates));
    items.push_back(separator());
    items.push_back(action(QStringLiteral("Quit Parlune"), quitAction, QStringLiteral("q")));
    return items;
}

} // namespace parlune
