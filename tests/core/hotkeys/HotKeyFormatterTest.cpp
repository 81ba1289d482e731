#include "core/hotkeys/HotKeyFormatter.h"
#include "core/platform/PlatformTerms.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

namespace flag = modifier_flag;

TEST(HotKeyFormatterTest, NamesModifiersInTheirFixedOrderAndKeysByTheirVisibleName) {
    EXPECT_EQ(
        HotKeyFormatter::modifierDisplayName(flag::command | flag::shift | flag::option | flag::control),
        "Ctrl+Alt+Shift+Super");
    EXPECT_EQ(HotKeyFormatter::modifierDisplayName(flag::capsLock), "");
    EXPECT_EQ(HotKeyFormatter::keyDisplayName({36, "\r", 0}), "Return");
    EXPECT_EQ(HotKeyFormatter::keyDisplayName({53, "\x1b", 0}), "Escape");
    EXPECT_EQ(HotKeyFormatter::keyDisplayName({43, ",", 0}), ",");
    EXPECT_EQ(HotKeyFormatter::keyDisplayName({41, "é", 0}), "É");
    EXPECT_EQ(HotKeyFormatter::keyDisplayName({122, "", 0}), "");
}

TEST(HotKeyFormatterTest, FullShortcutNeedsAModifierAndAKeyName) {
    EXPECT_FALSE(HotKeyFormatter::shortcut({4, "h", flag::capsLock}).has_value());
    EXPECT_FALSE(HotKeyFormatter::shortcut({122, "", flag::command}).has_value());
    EXPECT_EQ(HotKeyFormatter::shortcut({4, "h", flag::command | flag::shift}),
              (HotKeyShortcut{4, 768, "Shift+Super+H"}));
    // Stored masks: one modifier alone tells apart masks that only add up alike.
    EXPECT_EQ(HotKeyFormatter::shortcut({4, "h", flag::command}), (HotKeyShortcut{4, 256, "Super+H"}));
    EXPECT_EQ(HotKeyFormatter::shortcut({4, "h", flag::control}), (HotKeyShortcut{4, 4096, "Ctrl+H"}));
    EXPECT_EQ(HotKeyFormatter::shortcut({15, "r", flag::control | flag::option | flag::capsLock}),
              (HotKeyShortcut{15, 6144, "Ctrl+Alt+R"}));
}

// Named keys under held modifiers are the recorder widget's cases (RecorderTest); here the edges.
TEST(HotKeyFormatterTest, RecorderGivesAltPlusAVisiblePressedKey) {
    EXPECT_EQ(HotKeyFormatter::optionShortcut(7, "  X \n"), (HotKeyShortcut{7, 2048, "Alt+X"}));
    EXPECT_FALSE(HotKeyFormatter::optionShortcut({76, "\n", 0}).has_value());
    EXPECT_FALSE(HotKeyFormatter::optionShortcut({122, "", flag::function}).has_value());
    EXPECT_FALSE(HotKeyFormatter::optionShortcut(7, "  \r\n").has_value());
}

TEST(HotKeyFormatterTest, RecorderBoxShowsTheSecondKeyOfAltShortcutsOnly) {
    EXPECT_EQ(HotKeyFormatter::recorderKeyName({40, 2048, "Alt+K"}), "K");
    EXPECT_EQ(HotKeyFormatter::recorderKeyName({4, 768, "Super+Shift+H"}), "Space");
    EXPECT_EQ(HotKeyFormatter::recorderKeyName({15, 6144, "Ctrl+Alt+R"}), "Space");
    // Another platform's words for the same mask are not this desktop's Alt.
    EXPECT_EQ(HotKeyFormatter::recorderKeyName({40, 2048, "Option+K"}), "Space");
}

} // namespace
} // namespace parlune
