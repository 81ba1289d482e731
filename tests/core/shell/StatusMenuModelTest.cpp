#include "core/shell/StatusMenuModel.h"
#include "support/QtPrinters.h"

#include <QStringList>

#include <gtest/gtest.h>

namespace parlune {
namespace {

using Kind = StatusMenuItem::Kind;

TEST(StatusMenuModelTest, StyleSubmenuChecksTheCurrentModeAndTheRestFollowsInOrder) {
    const std::vector<StatusMenuItem> items = StatusMenuModel::build(RewriteMode::casual, false, false);
    ASSERT_EQ(items.size(), 6u);

    const StatusMenuItem& style = items[0];
    EXPECT_EQ(style.kind, Kind::submenu);
    EXPECT_EQ(style.title, "Style");
    EXPECT_EQ(style.submenuTitle, "Rewrite Style");
    QStringList titles;
    for (const StatusMenuItem& mode : style.children) {
        titles << mode.title;
        EXPECT_EQ(mode.actionId, "selectRewriteMode");
        EXPECT_EQ(mode.representedValue, mode.title);
        EXPECT_EQ(mode.checked, mode.title == "Casual");
        EXPECT_TRUE(mode.keyEquivalent.isEmpty());
    }
    EXPECT_EQ(titles,
              QStringList({"Improve clarity", "Make concise", "Professional", "Casual", "Improve prompt"}));

    EXPECT_EQ(items[1].kind, Kind::separator);
    EXPECT_EQ(items[2].title, "Settings…");
    EXPECT_EQ(items[2].keyEquivalent, ",");
    EXPECT_EQ(items[3].actionId, "checkForUpdates");
    EXPECT_EQ(items[4].kind, Kind::separator);
    EXPECT_EQ(items[5].title, "Quit Parlune");
    EXPECT_EQ(items[5].actionId, "quit");
    EXPECT_EQ(items[5].keyEquivalent, "q");
}

TEST(StatusMenuModelTest, UpdateCheckIsDisabledOnlyWhileAnUpdaterIsChecking) {
    const auto updatesEnabled = [](bool hasUpdater, bool canCheckNow) {
        return StatusMenuModel::build(RewriteMode::improveClarity, hasUpdater, canCheckNow)[3].enabled;
    };
    EXPECT_TRUE(updatesEnabled(false, false)); // no updater: the download page opens
    EXPECT_TRUE(updatesEnabled(true, true));
    EXPECT_FALSE(updatesEnabled(true, false));
    for (const StatusMenuItem& item : StatusMenuModel::build(RewriteMode::improveClarity, true, false)) {
        EXPECT_EQ(item.enabled, item.actionId != "checkForUpdates") << item.title.toStdString();
    }
}

} // namespace
} // namespace parlune
