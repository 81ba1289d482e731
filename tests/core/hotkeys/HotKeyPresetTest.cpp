#include "core/hotkeys/HotKeyPreset.h"
#include "core/hotkeys/HotKeyError.h"
#include "core/platform/PlatformTerms.h"
#include "support/QtPrinters.h"
#include "support/ScopedPlatformTerms.h"

#include <gtest/gtest.h>

namespace parlune {

// Found by argument-dependent lookup, so it lives beside HotKeyPreset rather than in the
// anonymous namespace.
void PrintTo(const HotKeyPreset& preset, std::ostream* out);
void PrintTo(const HotKeyPreset& preset, std::ostream* out) {
    *out << preset.id.toStdString() << " " << preset.name.toStdString() << " " << preset.keyCode << "/"
         << preset.carbonModifiers;
}

namespace {

using testing::ScopedPlatformTerms;

TEST(HotKeyPresetTest, LinuxCatalogueUsesLinuxModifierWordsWithSameCodes) {
    ScopedPlatformTerms linuxWords(PlatformTerms::linux());
    const std::vector<HotKeyPreset> expected = {
        {"option-space", "Alt+Space", 49, 2048},
        {"command-shift-h", "Super+Shift+H", 4, 768},
        {"control-option-r", "Ctrl+Alt+R", 15, 6144},
    };
    EXPECT_EQ(HotKeyPreset::all(), expected);
    EXPECT_EQ(HotKeyShortcut::defaultShortcut(), (HotKeyShortcut{49, 2048, "Alt+Space"}));
}

TEST(HotKeyPresetTest, LookupIsExactAndFallsBackToTheDefault) {
    ScopedPlatformTerms mac(PlatformTerms::macOS());
    EXPECT_EQ(HotKeyPreset::preset(u"control-option-r").shortcut(),
              (HotKeyShortcut{15, 6144, "Control+Option+R"}));
    for (const char16_t* unknown :
         {u"Control-Option-R", u"", u" option-space", u"command-shift-h ", u"nope"}) {
        EXPECT_EQ(HotKeyPreset::preset(unknown).id, "option-space")
            << QString::fromUtf16(unknown).toStdString();
    }
    EXPECT_EQ(HotKeyPreset::preset(u"command-shift-h").shortcut(),
              (HotKeyShortcut{4, 768, "Command+Shift+H"}));
}

TEST(HotKeyErrorTest, DescriptionNamesThePlatformStatus) {
    {
        ScopedPlatformTerms mac(PlatformTerms::macOS());
        const HotKeyError error = HotKeyError::registrationFailed(-9878);
        EXPECT_STREQ(error.what(), "Could not register the hotkey. OSStatus -9878.");
        EXPECT_EQ(error.status(), -9878);
        EXPECT_EQ(error.errorCase(), HotKeyError::Case::registrationFailed);
        EXPECT_STREQ(HotKeyError::registrationFailed(INT32_MIN).what(),
                     "Could not register the hotkey. OSStatus -2147483648.");
    }
    ScopedPlatformTerms linuxWords(PlatformTerms::linux());
    EXPECT_STREQ(HotKeyError::registrationFailed(10).what(), "Could not register the hotkey. X11 error 10.");
    EXPECT_EQ(HotKeyError::registrationFailed(10), HotKeyError::registrationFailed(10));
    EXPECT_FALSE(HotKeyError::registrationFailed(10) == HotKeyError::registrationFailed(11));
}

} // namespace
} // namespace parlune
