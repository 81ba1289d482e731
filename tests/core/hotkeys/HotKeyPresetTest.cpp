#include "core/hotkeys/HotKeyPreset.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(HotKeyPresetTest, LookupIsExactAndFallsBackToTheDefault) {
    EXPECT_EQ(HotKeyPreset::preset(u"control-option-r").shortcut(), (HotKeyShortcut{15, 6144, "Ctrl+Alt+R"}));
    EXPECT_EQ(HotKeyPreset::preset(u"command-shift-h").shortcut(), (HotKeyShortcut{4, 768, "Super+Shift+H"}));
    for (const char16_t* unknown :
         {u"Control-Option-R", u"", u" option-space", u"command-shift-h ", u"nope"}) {
        EXPECT_EQ(HotKeyPreset::preset(unknown).shortcut(), HotKeyShortcut::defaultShortcut())
            << QString::fromUtf16(unknown).toStdString();
    }
    EXPECT_EQ(HotKeyShortcut::defaultShortcut(), (HotKeyShortcut{49, 2048, "Alt+Space"}));
}

} // namespace
} // namespace parlune
