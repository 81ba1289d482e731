// The shortcut on sway, which has no shortcuts portal: the user binds `parlune --rewrite-selection`
// in sway's configuration, and the running instance gets the request over the session bus.
#include "CompositorConnection.h"
#include "SwaySession.h"
#include "Typist.h"
#include "WaylandDesktopTest.h"
#include "platform/linux/SessionInstance.h"
#include "platform/wayland/WaylandDesktop.h"
#include "support/RunTask.h"

#include <xkbcommon/xkbcommon-keysyms.h>

namespace parlune::test {
namespace {

TEST(ShortcutWaylandTest, TheCommandBoundInSwayReachesTheRunningInstance) {
    SwaySession* session = SwaySession::current();
    if (!session || !session->isRunning()) {
        GTEST_SKIP() << "no test compositor";
    }
    auto connection = test::connectToCompositor();
    ASSERT_TRUE(connection);
    Typist typist(*connection);
    ASSERT_TRUE(typist.isReady());

    int requests = 0;
    SessionInstance instance;
    ASSERT_EQ(instance.claim({.showSettings = [] {}, .rewriteSelection = [&] { ++requests; }}),
              SessionInstance::Claim::claimed);
    ASSERT_EQ(SwaySession::swaymsg({QStringLiteral("bindsym Ctrl+Shift+y exec %1 --rewrite-selection")
                                        .arg(QStringLiteral(PARLUNE_BINARY))}),
              0);

    ASSERT_TRUE(typist.tap(XKB_KEY_y, true, true));
    EXPECT_TRUE(pumpUntil([&] { return requests == 1; }, 15000));
    pumpFor(200);
    EXPECT_EQ(requests, 1);
}

TEST(ShortcutWaylandTest, SwaySessionIsServedByTheWaylandPortsWithTheBoundCommandPath) {
    SwaySession* session = SwaySession::current();
    if (!session || !session->isRunning()) {
        GTEST_SKIP() << "no test compositor";
    }
    auto connection = test::connectToCompositor();
    ASSERT_TRUE(connection);
    wayland::WaylandDesktop::Result connected = wayland::WaylandDesktop::connect(std::move(connection), {});
    auto* desktop = std::get_if<std::unique_ptr<wayland::WaylandDesktop>>(&connected);
    ASSERT_TRUE(desktop) << std::get<QString>(connected).toStdString();
    EXPECT_EQ((*desktop)->hotKeys(), nullptr);
    EXPECT_EQ((*desktop)->capabilities().clipboard(), wayland::WaylandCapabilities::Clipboard::dataControl);
    EXPECT_EQ((*desktop)->capabilities().keys(), wayland::WaylandCapabilities::Keys::virtualKeyboard);
    const ShortcutPath path = (*desktop)->shortcutPath();
    EXPECT_EQ(path.kind, ShortcutPath::Kind::boundCommand);
    EXPECT_TRUE(path.instructions.contains(QLatin1String("bindsym"))) << path.instructions.toStdString();
}

} // namespace
} // namespace parlune::test
