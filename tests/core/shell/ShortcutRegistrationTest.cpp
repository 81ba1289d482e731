#include "core/shell/ShortcutRegistration.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"
#include "core/shell/ShortcutChangeWatcher.h"
#include "support/FakeCredentialStore.h"
#include "support/FakeHotKeyService.h"
#include "support/FakeUserDefaults.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/ScopedPlatformTerms.h"
#include "support/ScriptedRewriteEngine.h"

#include <gtest/gtest.h>

#include <vector>

namespace parlune {
namespace {

using namespace std::chrono_literals;

const HotKeyShortcut optionSpace{49, 2048, "Alt+Space"};
const HotKeyShortcut optionTab{48, 2048, "Alt+Tab"};

class ShortcutRegistrationTest : public ::testing::Test {
protected:
    void take(const HotKeyShortcut& shortcut) {
        service_.takenKeys.insert({shortcut.keyCode, shortcut.carbonModifiers});
    }
    QString lastLine() const { return diagnostics_.entries().front().message; }

    testing::FakeUserDefaults defaults_;
    testing::FakeCredentialStore credentials_;
    SettingsStore settings_{defaults_, credentials_, false};
    testing::ScriptedRewriteEngine engine_;
    AppReadiness readiness_{engine_, [] { return true; }};
    DiagnosticsLogger diagnostics_;
    testing::FakeHotKeyService service_;
    HotKeyManager hotKeys_{service_};
    std::vector<QString> shown_;
    int presses_ = 0;
    ShortcutRegistration registration_{hotKeys_,
                                       settings_,
                                       readiness_,
                                       diagnostics_,
                                       [this](const QString& message) { shown_.push_back(message); },
                                       [this] { ++presses_; }};
};

TEST_F(ShortcutRegistrationTest, TakenNewShortcutFallsBackToThePreviousOneAndRewritesTheSettings) {
    registration_.registerHotKey(true, true);
    take(optionTab);
    settings_.saveHotKey(optionTab);
    registration_.registerHotKey(true, false);

    EXPECT_EQ(registration_.registeredHotKey(), optionSpace);
    EXPECT_EQ(settings_.selectedHotKey(), optionSpace);
    EXPECT_TRUE(readiness_.hotKeyReady());
    EXPECT_EQ(readiness_.hotKeyRegistrationError(), std::nullopt);
    EXPECT_EQ(shown_, std::vector<QString>{"Alt+Tab is already in use. Alt+Space remains active."});
    EXPECT_EQ(lastLine(),
              "stage=hotkey_registration outcome=reverted_to_previous error=registration_conflict");
    service_.press();
    EXPECT_EQ(presses_, 1);
}

TEST_F(ShortcutRegistrationTest, TakenShortcutWithNothingToFallBackToLeavesTheHotkeyNotReady) {
    take(optionSpace);
    registration_.registerHotKey(false, true);
    EXPECT_EQ(registration_.registeredHotKey(), std::nullopt);
    EXPECT_FALSE(readiness_.hotKeyReady());
    EXPECT_EQ(readiness_.hotKeyRegistrationError(),
              "Alt+Space is already in use. Choose another shortcut in Parlune Settings.");
    EXPECT_TRUE(shown_.empty());
    EXPECT_EQ(lastLine(), "stage=hotkey_registration outcome=failed error=registration_conflict");

    // A previous shortcut that is refused as well: the same failure, now reported.
    service_.takenKeys.clear();
    registration_.registerHotKey(true, true);
    take(optionSpace);
    take(optionTab);
    settings_.saveHotKey(optionTab);
    registration_.registerHotKey(true, false);
    EXPECT_EQ(settings_.selectedHotKey(), optionTab);
    EXPECT_EQ(shown_, std::vector<QString>{
                          "Alt+Tab is already in use. Choose another shortcut in Parlune Settings."});
    EXPECT_TRUE(service_.keys.empty());
}

TEST_F(ShortcutRegistrationTest, ALateRefusalIsReportedLikeAConflictAndAForcedRetryRegistersAgain) {
    registration_.refusedAfterRegistering(
        testing::FakeHotKeyService::alreadyTakenStatus); // nothing registered: nothing to report
    EXPECT_TRUE(shown_.empty());

    registration_.registerHotKey(false, true);
    ASSERT_TRUE(readiness_.hotKeyReady());
    registration_.refusedAfterRegistering(testing::FakeHotKeyService::alreadyTakenStatus);
    EXPECT_EQ(registration_.registeredHotKey(), std::nullopt);
    EXPECT_FALSE(readiness_.hotKeyReady());
    const QString sentence = "Alt+Space is already in use. Choose another shortcut in Parlune Settings.";
    EXPECT_EQ(readiness_.hotKeyRegistrationError(), sentence);
    EXPECT_EQ(shown_, std::vector<QString>{sentence});
    EXPECT_TRUE(service_.keys.empty()) << "the refused key is not left registered";
    service_.press();
    EXPECT_EQ(presses_, 0);

    // Not "ready", so even an unforced registration tries again.
    registration_.registerHotKey(true, false);
    EXPECT_EQ(registration_.registeredHotKey(), optionSpace);
    EXPECT_TRUE(readiness_.hotKeyReady());
}

TEST_F(ShortcutRegistrationTest, OnWaylandARefusalSaysWhatTheDesktopDidNotAnX11Error) {
    testing::ScopedPlatformTerms wayland(PlatformTerms::waylandLinux());
    service_.registerStatus = 17;
    registration_.registerHotKey(true, true);
    EXPECT_EQ(shown_,
              std::vector<QString>{"Alt+Space could not be registered: the desktop's shortcuts portal "
                                   "failed to bind it. Choose another shortcut in Parlune Settings."});
    EXPECT_EQ(lastLine(), "stage=hotkey_registration outcome=failed error=registration_refused");

    service_.registerStatus = 0;
    registration_.registerHotKey(false, true);
    registration_.refusedAfterRegistering(11);
    EXPECT_TRUE(shown_.back().startsWith("Alt+Space could not be registered: the request was declined"))
        << shown_.back().toStdString();
    registration_.registerHotKey(false, true);
    registration_.refusedAfterRegistering(10);
    EXPECT_TRUE(shown_.back().startsWith("Alt+Space is already in use.")) << shown_.back().toStdString();
    EXPECT_FALSE(shown_.back().contains("X11"));
}

TEST_F(ShortcutRegistrationTest, AKeyChosenInTheDesktopIsStoredOnceAndBindsNothingAgain) {
    registration_.registerHotKey(true, true);
    const std::size_t calls = service_.calls.size();
    int saves = 0;
    auto subscription = settings_.changed.connect([&](SettingsStore::Field) { ++saves; });

    registration_.adoptDesktopChoice(optionTab);
    EXPECT_EQ(settings_.selectedHotKey(), optionTab);
    EXPECT_EQ(registration_.registeredHotKey(), optionTab);
    const int savesOfOneShortcut = saves;
    EXPECT_GT(savesOfOneShortcut, 0);
    // What the settings watcher does next, and the desktop's second report of the same key.
    registration_.registerHotKey(true, false);
    registration_.adoptDesktopChoice(HotKeyShortcut{optionTab.keyCode, optionTab.carbonModifiers, "Alt+Tab"});
    EXPECT_EQ(saves, savesOfOneShortcut);
    EXPECT_EQ(service_.calls.size(), calls) << "no registration went to the desktop";
    EXPECT_TRUE(readiness_.hotKeyReady());
    EXPECT_TRUE(shown_.empty());

    // Refused later, then bound by the desktop again under the stored key: registered once more.
    registration_.refusedAfterRegistering(testing::FakeHotKeyService::alreadyTakenStatus);
    registration_.adoptDesktopChoice(optionTab);
    EXPECT_EQ(registration_.registeredHotKey(), optionTab);
    EXPECT_TRUE(readiness_.hotKeyReady());
}

TEST_F(ShortcutRegistrationTest, UnforcedRegistrationOfTheReadyShortcutDoesNothing) {
    registration_.registerHotKey(true, true);
    const std::size_t calls = service_.calls.size();
    registration_.registerHotKey(true, false);
    EXPECT_EQ(service_.calls.size(), calls);
    registration_.registerHotKey(true, true); // after a wake-up, say
    EXPECT_GT(service_.calls.size(), calls);
}

TEST(ShortcutChangeWatcherTest, OneCallPerSavedNewShortcutAndNoneForEqualValues) {
    testing::FakeUserDefaults defaults;
    testing::FakeCredentialStore credentials;
    SettingsStore settings(defaults, credentials, false);
    int calls = 0;
    ShortcutChangeWatcher watcher(
        settings, [&] { ++calls; }, 20ms);

    settings.saveHotKey(optionSpace); // the value it started with
    settings.setRewriteMode(RewriteMode::casual);
    test::pumpFor(60);
    EXPECT_EQ(calls, 0);

    settings.saveHotKey(optionTab); // three field writes
    EXPECT_EQ(calls, 0);
    ASSERT_TRUE(test::pumpUntil([&] { return calls == 1; }, 2000));
    settings.saveHotKey(optionTab);
    test::pumpFor(60);
    EXPECT_EQ(calls, 1);
}

} // namespace
} // namespace parlune
