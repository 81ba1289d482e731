#include "DesktopTest.h"
#include "EditorWindow.h"
#include "platform/atspi/AtspiAccessibility.h"
#include "platform/x11/X11Desktop.h"
#include "platform/x11/XcbHotKeyService.h"
#include "support/RunTask.h"

#include <QDir>

namespace parlune::test {
namespace {

using WorkspaceDesktopTest = DesktopTest;

TEST_F(WorkspaceDesktopTest, FrontmostApplicationFollowsTheActiveWindow) {
    EditorWindow first(*workspace);
    ASSERT_TRUE(first.open(QStringLiteral("one"), QStringLiteral("one.txt")));
    auto front = workspace->frontmostApplication();
    ASSERT_TRUE(front);
    EXPECT_EQ(front->processIdentifier, first.pid());
    EXPECT_EQ(front->bundleIdentifier, QStringLiteral("Mousepad"));

    EditorWindow second(*workspace, {QStringLiteral(PARLUNE_QT_EDITOR)});
    ASSERT_TRUE(second.open(QStringLiteral("two"), QStringLiteral("two.txt")));
    front = workspace->frontmostApplication();
    ASSERT_TRUE(front);
    EXPECT_EQ(front->processIdentifier, second.pid());

    // The first editor is known by its process although it is not in front.
    EXPECT_EQ(workspace->bundleIdentifier(first.pid()), QStringLiteral("Mousepad"));
    EXPECT_EQ(workspace->bundleIdentifier(second.pid()), front->bundleIdentifier);
}

TEST_F(WorkspaceDesktopTest, ProcessesWithoutWindowsOrAliveHaveNoIdentifier) {
    EXPECT_EQ(workspace->bundleIdentifier(::getpid()), std::nullopt) << "this test has no window";
    EXPECT_EQ(workspace->bundleIdentifier(0), std::nullopt);
    EXPECT_EQ(workspace->bundleIdentifier(99999999), std::nullopt);
}

TEST_F(WorkspaceDesktopTest, UrlsWithoutHandlerOrSchemeAndNonExecutablesAreRefused) {
    EXPECT_FALSE(workspace->openUrl(QStringLiteral("")));
    EXPECT_FALSE(workspace->openUrl(QStringLiteral("no scheme here")));
    EXPECT_FALSE(
        workspace->openUrl(QStringLiteral("x-apple.systempreferences:com.apple.preference.security")));
    EXPECT_FALSE(workspace->openApplication(QStringLiteral("/nonexistent/app")));
    EXPECT_FALSE(workspace->openApplication(QDir::tempPath()));
}

TEST_F(WorkspaceDesktopTest, AllPortsComeUpTogetherOnX11) {
    x11::X11Desktop::Result result = x11::X11Desktop::connect();
    ASSERT_TRUE(std::holds_alternative<std::unique_ptr<x11::X11Desktop>>(result))
        << std::get<QString>(result).toStdString();
    auto& desktop = *std::get<std::unique_ptr<x11::X11Desktop>>(result);
    EXPECT_TRUE(desktop.accessibility().isProcessTrusted());
    EXPECT_NE(desktop.primarySelection(), nullptr);
    EXPECT_EQ(desktop.shortcutPath().kind, ShortcutPath::Kind::registered);
    ASSERT_NE(desktop.hotKeys(), nullptr);
    EXPECT_EQ(desktop.hotKeys()->registerHotKey(49, 2048, {1, 1}).status, 0);
}

} // namespace
} // namespace parlune::test
