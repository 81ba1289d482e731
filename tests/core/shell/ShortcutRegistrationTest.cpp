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
using testing::FakeCredentialStore;
using testing::FakeHotKeyService;
using testing::FakeUserDefaults;
using testing::ScopedPlatformTerms;
using testing::ScriptedRewriteEngine;

const HotKeyShortcut optionSpace{49, 2048, "Option+Space"};
const HotKeyShortcut optionTab{48, 2048, "Option+Tab"};

class ShortcutRegistrationTest : public ::testing::Test {
protected:
    QString lastLine() const {
        return diagnostics_.entries().empty() ? QString() : diagnostics_.entries().front().message;
    }

    ScopedPlatformTerms mac_{PlatformTerms::macOS()};
    FakeUserDefaults defaults_;
    FakeCredentialStore credentials_;
    SettingsStore settings_{defaults_, credentials_, false};
    ScriptedRewriteEngine engine_;
    AppReadiness readiness_{engine_, [] { return true; }};
    DiagnosticsLogger diagnostics_;
    FakeHotKeyService service_;
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
    ASSERT_EQ(registration_.registeredHotKey(), optionSpace);
    ASSERT_TRUE(readiness_.hotKeyReady());

    service_.takenKeys.insert({optionTab.keyCode, optionTab.carbonModifiers});
    settings_.saveHotKey(optionTab);
    registration_.registerHotKey(true, false);

    EXPECT_EQ(registration_.registeredHotKey(), optionSpace);
    EXPECT_EQ(settings_.selectedHotKey(), optionSpace);
    EXPECT_TRUE(readiness_.hotKeyReady());
    EXPECT_EQ(readiness_.hotKeyRegistrationError(), std::nullopt);
    EXPECT_EQ(shown_, std::vector<QString>{"Option+Tab is already in use. Option+Space remains active."});
    EXPECT_EQ(lastLine(),
              "stage=hotkey_registration outcome=reverted_to_previous error=registration_conflict");
    ASSERT_EQ(service_.keys.size(), 1u);
    EXPECT_EQ(service_.keys.begin()->second,
              std::make_pair(optionSpace.keyCode, optionSpace.carbonModifiers));
    service_.press();
    EXPECT_EQ(presses_, 1);
}

TEST_F(ShortcutRegistrationTest, TakenShortcutWithNothingToFallBackToLeavesTheHotkeyNotReady) {
    service_.takenKeys.insert({optionSpace.keyCode, optionSpace.carbonModifiers});
    registration_.registerHotKey(false, true);
    const QString message = "Option+Space is already in use. Choose another shortcut in Parlune Settings.";
    EXPECT_EQ(registration_.registeredHotKey(), std::nullopt);
    EXPECT_FALSE(readiness_.hotKeyReady());
    EXPECT_EQ(readiness_.hotKeyRegistrationError(), message);
    EXPECT_TRUE(shown_.empty()); // not reported when asked not to
    EXPECT_EQ(lastLine(), "stage=hotkey_registration outcome=failed error=registration_conflict");

    // The previous shortcut is refused as well: the same failure, now shown.
    service_.takenKeys.clear();
    registration_.registerHotKey(true, true);
    service_.takenKeys = {{optionSpace.keyCode, optionSpace.carbonModifiers},
                          {optionTab.keyCode, optionTab.carbonModifiers}};
    settings_.saveHotKey(optionTab);
    registration_.registerHotKey(true, false);
    EXPECT_EQ(registration_.registeredHotKey(), std::nullopt);
    EXPECT_EQ(settings_.selectedHotKey(), optionTab);
    EXPECT_EQ(shown_, std::vector<QString>{
                          "Option+Tab is already in use. Choose another shortcut in Parlune Settings."});
    EXPECT_TRUE(service_.keys.empty());
}

TEST_F(ShortcutRegistrationTest, UnforcedRegistrationOfTheReadyShortcutDoesNothingButForcedRegrabs) {
    registration_.registerHotKey(true, true);
    const std::size_t calls = service_.calls.size();
    registration_.registerHotKey(true, false);
    EXPECT_EQ(service_.calls.size(), calls);

    registration_.registerHotKey(true, true);
    EXPECT_GT(service_.calls.size(), calls);
    EXPECT_TRUE(readiness_.hotKeyReady());

    // Not ready (say a failed attempt was recorded elsewhere): an unforced call tries again.
    readiness_.setHotKeyReady(false);
    const std::size_t before = service_.calls.size();
    registration_.registerHotKey(true, false);
    EXPECT_GT(service_.calls.size(), before);
    EXPECT_TRUE(readiness_.hotKeyReady());
}

class ShortcutChangeWatcherTest : public ::testing::Test {
protected:
    ScopedPlatformTerms mac_{PlatformTerms::macOS()};
    FakeUserDefaults defaults_;
    FakeCredentialStore credentials_;
    SettingsStore settings_{defaults_, credentials_, false};
    int calls_ = 0;
    ShortcutChangeWatcher watcher_{settings_, [this] { ++calls_; }, 20ms};
};

TEST_F(ShortcutChangeWatcherTest, OneSaveOfThreeFieldsCausesOneCall) {
    settings_.saveHotKey(optionTab);
    EXPECT_EQ(calls_, 0); // nothing before the quiet period ends
    ASSERT_TRUE(test::pumpUntil([&] { return calls_ == 1; }, 2000));
    test::pumpFor(60);
    EXPECT_EQ(calls_, 1);
}

TEST_F(ShortcutChangeWatcherTest, EqualValuesAndOtherFieldsAreNoChange) {
    settings_.saveHotKey(optionSpace); // the value at construction
    settings_.setRewriteMode(RewriteMode::casual);
    settings_.setHotKeyIdentifier(QStringLiteral("custom"));
    test::pumpFor(80);
    EXPECT_EQ(calls_, 0);

    settings_.saveHotKey(optionTab);
    ASSERT_TRUE(test::pumpUntil([&] { return calls_ == 1; }, 2000));
    settings_.saveHotKey(optionTab);
    test::pumpFor(80);
    EXPECT_EQ(calls_, 1);
}

} // namespace
} // namespace parlune
