#include "platform/linux/LinuxSession.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(LinuxSessionTest, WaylandIsRecognisedEvenWithXwaylandPresent) {
    using Kind = LinuxSession::Kind;
    EXPECT_EQ(LinuxSession::detect("x11", "", ":0"), Kind::x11);
    EXPECT_EQ(LinuxSession::detect("", "", ":1"), Kind::x11);
    EXPECT_EQ(LinuxSession::detect("wayland", "", ""), Kind::wayland);
    EXPECT_EQ(LinuxSession::detect("Wayland", "", ":0"), Kind::wayland);
    EXPECT_EQ(LinuxSession::detect("x11", "wayland-0", ":0"), Kind::wayland);
    EXPECT_EQ(LinuxSession::detect("tty", "", ""), Kind::none);

    EXPECT_EQ(LinuxSession::missingDisplayReason(Kind::x11), std::nullopt);
    EXPECT_EQ(LinuxSession::missingDisplayReason(Kind::wayland), std::nullopt);
    ASSERT_TRUE(LinuxSession::missingDisplayReason(Kind::none));
    EXPECT_TRUE(LinuxSession::missingDisplayReason(Kind::none)->contains(QLatin1String("WAYLAND_DISPLAY")));
}

} // namespace
} // namespace parlune
