#include "core/hotkeys/HotKeyManager.h"
#include "core/hotkeys/HotKeyError.h"
#include "core/hotkeys/HotKeyPreset.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "core/platform/PlatformTerms.h"
#include "support/FakeHotKeyService.h"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

namespace parlune {
namespace {

using testing::FakeHotKeyService;

const HotKeyShortcut optionSpace{49, 2048, "Alt+Space"};
const HotKeyShortcut commandShiftH{4, 768, "Super+Shift+H"};

class HotKeyManagerTest : public ::testing::Test {
protected:
    FakeHotKeyService service;
    HotKeyManager manager{service};
};

TEST_F(HotKeyManagerTest, RegistersHandlerThenKeyAndRunsActionOncePerPress) {
    int presses = 0;
    manager.registerShortcut(optionSpace, [&] { ++presses; });

    EXPECT_EQ(service.calls, (std::vector<std::string>{"install", "register 49/2048"}));
    ASSERT_EQ(service.hotKeys.size(), 1u);
    EXPECT_EQ(service.hotKeys.begin()->second, (HotKeyIdentifier{HotKeyManager::signature, 1}));
    EXPECT_TRUE(manager.isRegistered());

    EXPECT_EQ(service.press(), std::vector<std::int32_t>{0});
    EXPECT_EQ(presses, 1);
}

TEST_F(HotKeyManagerTest, DisplayNamePlaysNoPartAndPresetsUseTheirCodes) {
    manager.registerShortcut(HotKeyShortcut{49, 2048, "renamed"}, [] {});
    manager.registerPreset(HotKeyPreset::all().at(1), [] {});
    EXPECT_EQ(service.calls, (std::vector<std::string>{"install", "register 49/2048", "unregister", "remove",
                                                       "install", "register 4/768"}));
}

TEST_F(HotKeyManagerTest, TakenShortcutThrowsStatusAndLeavesNothingRegisteredNotEvenThePreviousOne) {
    int presses = 0;
    manager.registerShortcut(commandShiftH, [&] { ++presses; });

    service.registerStatus = FakeHotKeyService::alreadyTakenStatus;
    try {
        manager.registerShortcut(optionSpace, [&] { ++presses; });
        FAIL() << "registration should fail";
    } catch (const HotKeyError& error) {
        EXPECT_EQ(error.status(), FakeHotKeyService::alreadyTakenStatus);
        EXPECT_STREQ(error.what(), "Could not register the hotkey. X11 error 10.");
    }
    EXPECT_TRUE(service.hotKeys.empty());
    EXPECT_TRUE(service.handlers.empty());
    EXPECT_FALSE(manager.isRegistered());
    EXPECT_FALSE(manager.hasAction());
    EXPECT_FALSE(HotKeyManager::hasSharedAction());
    service.press();
    EXPECT_EQ(presses, 0);
}

TEST_F(HotKeyManagerTest, FailedHandlerInstallKeepsActionUntilTheNextRegistration) {
    service.installStatus = -50;
    EXPECT_THROW(manager.registerShortcut(optionSpace, [] {}), HotKeyError);
    EXPECT_EQ(service.calls, std::vector<std::string>{"install"});
    EXPECT_FALSE(manager.isRegistered());
    EXPECT_TRUE(manager.hasAction());
    EXPECT_TRUE(HotKeyManager::hasSharedAction());

    service.installStatus = 0;
    manager.registerShortcut(optionSpace, [] {});
    EXPECT_TRUE(manager.isRegistered());
    EXPECT_EQ(service.handlers.size(), 1u);
}

TEST_F(HotKeyManagerTest, UnregisterOnFreshManagerOrTwiceDoesNothing) {
    manager.unregister();
    manager.unregister();
    EXPECT_TRUE(service.calls.empty());

    manager.registerShortcut(optionSpace, [] {});
    manager.unregister();
    manager.unregister();
    EXPECT_EQ(service.calls,
              (std::vector<std::string>{"install", "register 49/2048", "unregister", "remove"}));
    EXPECT_FALSE(HotKeyManager::hasSharedAction());
}

TEST_F(HotKeyManagerTest, ForeignSignatureOrMissingIdentifierIsIgnoredAndAnsweredZero) {
    int presses = 0;
    manager.registerShortcut(optionSpace, [&] { ++presses; });

    EXPECT_EQ(HotKeyManager::handleHotKeyEvent(HotKeyIdentifier{0x41424344, 1}), 0);
    EXPECT_EQ(HotKeyManager::handleHotKeyEvent(std::nullopt), 0);
    EXPECT_EQ(presses, 0);
    // The identifier's number is not compared.
    EXPECT_EQ(HotKeyManager::handleHotKeyEvent(HotKeyIdentifier{HotKeyManager::signature, 7}), 0);
    EXPECT_EQ(presses, 1);
}

TEST(HotKeyManagerLifetimeTest, LatePressAfterTheManagerIsGoneCallsNothing) {
    FakeHotKeyService service;
    int presses = 0;
    {
        HotKeyManager manager(service);
        manager.registerShortcut(optionSpace, [&] { ++presses; });
    }
    EXPECT_TRUE(service.hotKeys.empty());
    EXPECT_TRUE(service.handlers.empty());
    EXPECT_EQ(HotKeyManager::handleHotKeyEvent(HotKeyIdentifier{HotKeyManager::signature, 1}), 0);
    EXPECT_EQ(presses, 0);
}

TEST_F(HotKeyManagerTest, SameShortcutTwiceEndsWithExactlyOneRegistration) {
    int first = 0;
    int second = 0;
    manager.registerShortcut(optionSpace, [&] { ++first; });
    manager.registerShortcut(optionSpace, [&] { ++second; });
    EXPECT_EQ(service.hotKeys.size(), 1u);
    EXPECT_EQ(service.handlers.size(), 1u);
    service.press();
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
}

TEST_F(HotKeyManagerTest, ActionMayReRegisterFromInsideAPress) {
    int presses = 0;
    manager.registerShortcut(optionSpace, [&] {
        ++presses;
        manager.registerShortcut(commandShiftH, [&] { presses += 10; });
    });
    service.press();
    EXPECT_EQ(presses, 1);
    ASSERT_EQ(service.keys.size(), 1u);
    EXPECT_EQ(service.keys.begin()->second, std::make_pair(4u, 768u));
    service.press();
    EXPECT_EQ(presses, 11);
}

} // namespace
} // namespace parlune
