#include "core/shell/StatusMenuModel.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

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
