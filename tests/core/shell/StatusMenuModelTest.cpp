#include "core/shell/StatusMenuModel.h"
#include "support/QtPrinters.h"

#include <QStringList>

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(StatusMenuModelTest, StyleSubmenuChecksTheCurrentModeAndTheRestFollowsInOrder) {
    const std::vector<StatusMenuItem> items = StatusMenuModel::build(RewriteMode::casual, false, false);
    QStringList titles;
    for (const StatusMenuItem& item : items) {
        titles << item.title + u'|' + item.keyEquivalent + u'|' + QString::number(item.enabled);
    }
    EXPECT_EQ(titles, QStringList({"Style||1", "||1", "Settings…|,|1", "Check for Updates…||1", "||1",
                                   "Quit Parlune|q|1"}));
    EXPECT_EQ(items[0].submenuTitle, "Rewrite Style");

    QStringList modes;
    for (const StatusMenuItem& mode : items[0].children) {
        modes << mode.representedValue + (mode.checked ? "*" : "");
    }
    EXPECT_EQ(modes,
              QStringList({"Improve clarity", "Make concise", "Professional", "Casual*", "Improve prompt"}));
}

TEST(StatusMenuModelTest, UpdateCheckIsDisabledOnlyWhileAnUpdaterIsChecking) {
    const auto updatesEnabled = [](bool hasUpdater, bool canCheckNow) {
        return StatusMenuModel::build(RewriteMode::improveClarity, hasUpdater, canCheckNow)[3].enabled;
    };
    EXPECT_TRUE(updatesEnabled(false, false)); // no updater: the download page opens
    EXPECT_TRUE(updatesEnabled(true, true));
    EXPECT_FALSE(updatesEnabled(true, false));
}

} // namespace
} // namespace parlune
