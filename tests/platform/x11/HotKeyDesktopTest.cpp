#include "DesktopTest.h"
#include "core/hotkeys/HotKeyError.h"
#include "core/hotkeys/HotKeyManager.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "platform/x11/XcbHotKeyService.h"
#include "support/RunTask.h"

#include <X11/keysym.h>
#include <xcb/xcb_keysyms.h>

#include <cstdlib>
#include <vector>

namespace parlune::test {
namespace {

const HotKeyShortcut altSpace = HotKeyShortcut::defaultShortcut();
const HotKeyShortcut controlShiftH{4, carbon_modifier::control | carbon_modifier::shift, "Ctrl+Shift+H"};

// Grabs Alt+Space on a connection of its own, as a window manager's key binding would; the grab
// lasts until that connection is closed.
xcb_connection_t* grabAltSpaceAsAnotherClient() {
    xcb_connection_t* other = xcb_connect(nullptr, nullptr);
    EXPECT_FALSE(xcb_connection_has_error(other));
    const xcb_window_t root = xcb_setup_roots_iterator(xcb_get_setup(other)).data->root;
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(other);
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, XK_space);
    xcb_generic_error_t* grabError =
        xcb_request_check(other, xcb_grab_key_checked(other, 1, root, XCB_MOD_MASK_1, codes[0],
                                                      XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC));
    EXPECT_EQ(grabError, nullptr);
    std::free(grabError);
    std::free(codes);
    xcb_key_symbols_free(symbols);
    return other;
}

class HotKeyDesktopTest : public DesktopTest {
protected:
    void SetUp() override {
        DesktopTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        service = x11::XcbHotKeyService::forApplication();
        ASSERT_TRUE(service) << "the test runs on Qt's xcb platform";
        manager = std::make_unique<HotKeyManager>(*service);
    }
    void TearDown() override {
        manager.reset();
        service.reset();
        DesktopTest::TearDown();
    }

    // Presses seen after `keys` were typed, once nothing more arrives.
    int pressesAfter(const QStringList& keys) {
        presses = 0;
        xdotool(QStringList{QStringLiteral("key")} + keys);
        pumpUntil([&] { return presses > 0; }, 2000);
        pumpFor(300);
        return presses;
    }

    bool numLockIsOn() {
        auto* reply = xcb_query_pointer_reply(
            connection->raw(), xcb_query_pointer(connection->raw(), connection->root()), nullptr);
        const bool on = reply && (reply->mask & XCB_MOD_MASK_2);
        std::free(reply);
        return on;
    }

    std::unique_ptr<x11::XcbHotKeyService> service;
    std::unique_ptr<HotKeyManager> manager;
    int presses = 0;
};

TEST_F(HotKeyDesktopTest, ShortcutTypedOnceIsDeliveredOnceAndOnlyWithItsModifiers) {
    manager->registerShortcut(altSpace, [&] { ++presses; });
    EXPECT_EQ(pressesAfter({QStringLiteral("alt+space")}), 1);
    EXPECT_EQ(pressesAfter({QStringLiteral("ctrl+alt+space")}), 0);
    EXPECT_EQ(pressesAfter({QStringLiteral("space")}), 0);
}

TEST_F(HotKeyDesktopTest, ShortcutWorksWithNumLockAndCapsLockOn) {
    manager->registerShortcut(altSpace, [&] { ++presses; });
    xdotool({QStringLiteral("key"), QStringLiteral("Num_Lock")});
    pumpFor(100);
    ASSERT_TRUE(numLockIsOn());
    EXPECT_EQ(pressesAfter({QStringLiteral("alt+space")}), 1);
    xdotool({QStringLiteral("key"), QStringLiteral("Caps_Lock")});
    EXPECT_EQ(pressesAfter({QStringLiteral("alt+space")}), 1);
    xdotool({QStringLiteral("key"), QStringLiteral("Caps_Lock"), QStringLiteral("Num_Lock")});
    pumpFor(100);
    EXPECT_FALSE(numLockIsOn());
}

// Moves every keysym of one key to another, as a layout switch or a remapping tool does.
class MovedKey {
public:
    MovedKey(xcb_connection_t* connection, xcb_keycode_t from, xcb_keycode_t to)
        : connection_(connection), from_(from), to_(to) {
        auto* reply = xcb_get_keyboard_mapping_reply(connection,
                                                     xcb_get_keyboard_mapping(connection, from, 1), nullptr);
        if (reply) {
            const xcb_keysym_t* syms = xcb_get_keyboard_mapping_keysyms(reply);
            syms_.assign(syms, syms + reply->keysyms_per_keycode);
        }
        std::free(reply);
        apply(from_, to_);
    }
    ~MovedKey() { apply(to_, from_); }
    MovedKey(const MovedKey&) = delete;
    MovedKey& operator=(const MovedKey&) = delete;

private:
    void apply(xcb_keycode_t emptied, xcb_keycode_t filled) {
        const std::vector<xcb_keysym_t> none(syms_.size(), XCB_NO_SYMBOL);
        const auto width = static_cast<std::uint8_t>(syms_.size());
        xcb_change_keyboard_mapping(connection_, 1, filled, width, syms_.data());
        xcb_change_keyboard_mapping(connection_, 1, emptied, width, none.data());
        xcb_flush(connection_);
        pumpFor(300); // the mapping notice reaches every client
    }

    xcb_connection_t* connection_;
    xcb_keycode_t from_;
    xcb_keycode_t to_;
    std::vector<xcb_keysym_t> syms_;
};

TEST_F(HotKeyDesktopTest, ShortcutFollowsItsKeyWhenTheKeyboardMappingChanges) {
    manager->registerShortcut(controlShiftH, [&] { ++presses; });
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(connection->raw());
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, XK_h);
    const xcb_keycode_t original = codes ? codes[0] : 0;
    std::free(codes);
    // A key that carries nothing (Xvfb's map leaves the top codes empty).
    xcb_keycode_t spare = 0;
    for (xcb_keycode_t code = 250; code > 200 && spare == 0; --code) {
        spare = xcb_key_symbols_get_keysym(symbols, code, 0) == XCB_NO_SYMBOL ? code : 0;
    }
    xcb_key_symbols_free(symbols);
    ASSERT_NE(original, 0);
    ASSERT_NE(spare, 0);
    {
        MovedKey moved(connection->raw(), original, spare);
        // xdotool types H on whichever key carries it now.
        EXPECT_EQ(pressesAfter({QStringLiteral("ctrl+shift+h")}), 1);
    }
    EXPECT_EQ(pressesAfter({QStringLiteral("ctrl+shift+h")}), 1);
}

TEST_F(HotKeyDesktopTest, HeldShortcutAutoRepeatsButIsDeliveredOnce) {
    manager->registerShortcut(altSpace, [&] { ++presses; });
    xdotool({QStringLiteral("keydown"), QStringLiteral("alt+space")});
    pumpFor(1500); // past the auto-repeat delay
    xdotool({QStringLiteral("keyup"), QStringLiteral("alt+space")});
    pumpFor(300);
    EXPECT_EQ(presses, 1);
    EXPECT_EQ(pressesAfter({QStringLiteral("alt+space")}), 1);
}

TEST_F(HotKeyDesktopTest, CombinationHeldByAnotherClientFailsWithTheXErrorAndDropsThePreviousShortcut) {
    manager->registerShortcut(controlShiftH, [&] { ++presses; });

    xcb_connection_t* other = grabAltSpaceAsAnotherClient();

    try {
        manager->registerShortcut(altSpace, [&] { ++presses; });
        ADD_FAILURE() << "the held combination was registered";
    } catch (const HotKeyError& error) {
        EXPECT_EQ(error.status(), 10); // BadAccess
        EXPECT_STREQ(error.what(), "Could not register the hotkey. X11 error 10.");
    }
    EXPECT_FALSE(manager->isRegistered());
    EXPECT_EQ(pressesAfter({QStringLiteral("ctrl+shift+h")}), 0);

    xcb_disconnect(other);
    manager->registerShortcut(altSpace, [&] { ++presses; });
    EXPECT_EQ(pressesAfter({QStringLiteral("alt+space")}), 1);
}

TEST_F(HotKeyDesktopTest, UnregisteredShortcutReachesTheFocusedApplicationAgain) {
    manager->registerShortcut(altSpace, [&] { ++presses; });
    manager->unregister();
    EXPECT_EQ(pressesAfter({QStringLiteral("alt+space")}), 0);
    // A second client can now take the combination.
    xcb_disconnect(grabAltSpaceAsAnotherClient());
}

} // namespace
} // namespace parlune::test
