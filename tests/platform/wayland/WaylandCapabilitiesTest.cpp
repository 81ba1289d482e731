#include "platform/wayland/WaylandCapabilities.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace parlune::wayland {
namespace {

WaylandFacts sway() {
    return WaylandFacts{
        .desktop = QStringLiteral("sway"), .dataControl = true, .virtualKeyboard = true, .swayIpc = true};
}

bool says(const std::optional<QString>& text, const char* words) {
    return text && text->contains(QLatin1String(words));
}

TEST(WaylandCapabilitiesTest, SwayWorksThroughDataControlTheVirtualKeyboardAndABoundCommand) {
    const WaylandCapabilities capabilities(sway());
    EXPECT_EQ(capabilities.blockingProblem(), std::nullopt);
    EXPECT_EQ(capabilities.clipboard(), WaylandCapabilities::Clipboard::dataControl);
    EXPECT_EQ(capabilities.keys(), WaylandCapabilities::Keys::virtualKeyboard);
    const ShortcutPath path = capabilities.shortcutPath();
    EXPECT_EQ(path.kind, ShortcutPath::Kind::boundCommand);
    EXPECT_TRUE(
        path.instructions.contains(QLatin1String("bindsym Mod1+space exec parlune --rewrite-selection")));
    EXPECT_TRUE(path.instructions.contains(QLatin1String("~/.config/sway/config")));
}

TEST(WaylandCapabilitiesTest, EachDesktopIsToldWhereToBindTheCommand) {
    WaylandFacts facts = sway();
    facts.desktop = QStringLiteral("Hyprland");
    EXPECT_TRUE(WaylandCapabilities(facts).shortcutPath().instructions.contains(
        QLatin1String("bind = ALT, space, exec, parlune --rewrite-selection")));
    // XDG_CURRENT_DESKTOP may list several names.
    facts.desktop = QStringLiteral("ubuntu:GNOME");
    EXPECT_TRUE(
        WaylandCapabilities(facts).shortcutPath().instructions.contains(QLatin1String("Custom Shortcuts")));
    facts.desktop = QStringLiteral("KDE");
    EXPECT_TRUE(
        WaylandCapabilities(facts).shortcutPath().instructions.contains(QLatin1String("Command or Script")));
    facts.desktop.clear();
    EXPECT_TRUE(WaylandCapabilities(facts).shortcutPath().instructions.contains(
        QLatin1String("\"parlune --rewrite-selection\"")));
    // With the shortcuts portal the program registers the key itself.
    facts.portalShortcuts = true;
    EXPECT_EQ(WaylandCapabilities(facts).shortcutPath().kind, ShortcutPath::Kind::registered);
}

TEST(WaylandCapabilitiesTest, GnomeWithoutDataControlOrXwaylandSaysWhatIsMissingAndWhatToDo) {
    const WaylandFacts gnome{.desktop = QStringLiteral("GNOME"), .portalKeyboard = true, .swayIpc = true};
    const WaylandCapabilities capabilities(gnome);
    EXPECT_EQ(capabilities.clipboard(), WaylandCapabilities::Clipboard::none);
    const std::optional<QString> problem = capabilities.blockingProblem();
    EXPECT_TRUE(says(problem, "(GNOME)"));
    EXPECT_TRUE(says(problem, "data-control"));
    EXPECT_TRUE(says(problem, "XWayland"));
    EXPECT_TRUE(says(problem, "X11 session"));
}

TEST(WaylandCapabilitiesTest, XwaylandStandsInForTheClipboardAndTheMissingKeyboardIsNamed) {
    WaylandFacts gnome{.desktop = QStringLiteral("GNOME"), .xwayland = true, .swayIpc = true};
    const WaylandCapabilities withoutKeys(gnome);
    EXPECT_EQ(withoutKeys.clipboard(), WaylandCapabilities::Clipboard::xwayland);
    EXPECT_TRUE(says(withoutKeys.blockingProblem(), "remote-desktop portal"));
    EXPECT_TRUE(says(withoutKeys.blockingProblem(), "virtual-keyboard protocol"));

    gnome.portalKeyboard = true;
    const WaylandCapabilities withPortal(gnome);
    EXPECT_EQ(withPortal.keys(), WaylandCapabilities::Keys::portal);
    EXPECT_EQ(withPortal.blockingProblem(), std::nullopt);
    ASSERT_EQ(withPortal.limitations().size(), 1u);
    EXPECT_TRUE(withPortal.limitations().front().contains(QLatin1String("through XWayland")));
}

TEST(WaylandCapabilitiesTest, KdeWithoutSwayIpcWorksAndSaysWhichApplicationsItRecognises) {
    WaylandFacts kde{.desktop = QStringLiteral("KDE"),
                     .dataControl = true,
                     .portalKeyboard = true,
                     .portalShortcuts = true};
    const WaylandCapabilities capabilities(kde);
    EXPECT_EQ(capabilities.blockingProblem(), std::nullopt);
    EXPECT_EQ(capabilities.keys(), WaylandCapabilities::Keys::portal);
    EXPECT_EQ(capabilities.shortcutPath().kind, ShortcutPath::Kind::registered);
    const std::vector<QString> notes = capabilities.limitations();
    EXPECT_TRUE(std::any_of(notes.begin(), notes.end(), [](const QString& note) {
        return note.contains(QLatin1String("accessibility bus")) &&
               note.contains(QLatin1String("QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1"));
    }));
    // sway tells the frontmost application itself: no such note there.
    const std::vector<QString> swayNotes = WaylandCapabilities(sway()).limitations();
    EXPECT_TRUE(std::none_of(swayNotes.begin(), swayNotes.end(), [](const QString& note) {
        return note.contains(QLatin1String("accessibility bus"));
    }));
}

} // namespace
} // namespace parlune::wayland
