#include "core/selection/AccessibilityPermission.h"
#include "core/platform/PlatformTerms.h"
#include "desktop/SimulatedAccessibility.h"
#include "desktop/SimulatedDesktop.h"
#include "desktop/SimulatedWorkspace.h"

#include <gtest/gtest.h>

namespace parlune::test {
namespace {

class AccessibilityPermissionTest : public ::testing::Test {
protected:
    SimulatedDesktop desktop;
    AccessibilityPermission permission{desktop.accessibility(), desktop.workspace(), PlatformTerms::linux()};
    int refreshes = 0;
    std::function<void()> refresh = [this] { ++refreshes; };
};

TEST_F(AccessibilityPermissionTest, TrustedProcessIsNeverPrompted) {
    EXPECT_TRUE(permission.isTrusted());
    EXPECT_TRUE(permission.requestIfNeeded());
    EXPECT_TRUE(permission.requestAndOpenSettings(refresh));
    EXPECT_EQ(desktop.promptCount, 0);
    EXPECT_EQ(refreshes, 1);
    EXPECT_TRUE(desktop.openedUrls.empty());
    EXPECT_TRUE(desktop.openedApplications.empty());
}

TEST_F(AccessibilityPermissionTest, GrantedByThePromptOpensNothing) {
    desktop.trusted = false;
    desktop.grantOnPrompt = true;
    EXPECT_TRUE(permission.requestAndOpenSettings(refresh));
    EXPECT_EQ(desktop.promptCount, 1);
    EXPECT_EQ(refreshes, 1);
    EXPECT_TRUE(desktop.openedUrls.empty());
}

TEST_F(AccessibilityPermissionTest, RefusedOpensTheSettingsLocationOrTheSettingsApplication) {
    desktop.trusted = false;
    EXPECT_FALSE(permission.isTrusted());
    EXPECT_FALSE(permission.requestAndOpenSettings(refresh));
    EXPECT_EQ(refreshes, 1);
    ASSERT_EQ(desktop.openedUrls.size(), 1u);
    EXPECT_EQ(desktop.openedUrls[0],
              QString::fromUtf8(PlatformTerms::linux().accessibilitySettingsLocation.data()));
    EXPECT_TRUE(desktop.openedApplications.empty());

    desktop.opensUrls = false;
    EXPECT_FALSE(permission.requestAndOpenSettings(refresh));
    ASSERT_EQ(desktop.openedApplications.size(), 1u);
    EXPECT_EQ(desktop.openedApplications[0],
              QString::fromUtf8(PlatformTerms::linux().settingsApplicationPath.data()));
    EXPECT_EQ(desktop.promptCount, 2);
}

} // namespace
} // namespace parlune::test
