#include "platform/x11/XTestKeyboardEvents.h"

#include "core/async/Sleep.h"
#include "core/platform/Workspace.h"
#include "platform/x11/X11KeyTable.h"
#include "platform/x11/XcbConnection.h"

#include <QElapsedTimer>

#include <X11/keysym.h>
#include <xcb/xcb_keysyms.h>
#include <xcb/xtest.h>

#include <chrono>
#include <cstdlib>
#include <vector>

namespace parlune::x11 {

XTestKeyboardEvents::XTestKeyboardEvents(XcbConnection& connection, Workspace& workspace)
    : x_(connection), workspace_(workspace) {}

bool XTestKeyboardEvents::isAvailable() const {
    const xcb_query_extension_reply_t* test = xcb_get_extension_data(x_.raw(), &xcb_test_id);
    return test && test->present;
}

std::optional<xcb_keycode_t> XTestKeyboardEvents::keycodeFor(std::uint32_t keysym) const {
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(x_.raw());
    if (!symbols) {
        return std::nullopt;
    }
    xcb_keycode_t* codes = xcb_key_symbols_get_keycode(symbols, keysym);
    std::optional<xcb_keycode_t> result;
    if (codes && codes[0] != XCB_NO_SYMBOL) {
        result = codes[0];
    }
    std::free(codes);
    xcb_key_symbols_free(symbols);
    return result;
}

std::bitset<256> XTestKeyboardEvents::keysDown() const {
    std::bitset<256> down;
    auto* reply = xcb_query_keymap_reply(x_.raw(), xcb_query_keymap(x_.raw()), nullptr);
    if (reply) {
        for (int byte = 0; byte < 32; ++byte) {
            for (int bit = 0; bit < 8; ++bit) {
                if (reply->keys[byte] & (1u << bit)) {
                    down.set(static_cast<std::size_t>(byte * 8 + bit));
                }
            }
        }
    }
    std::free(reply);
    x_.scheduleDispatch();
    return down;
}

std::bitset<256> XTestKeyboardEvents::modifierKeys() const {
    std::bitset<256> keys;
    auto* reply = xcb_get_modifier_mapping_reply(x_.raw(), xcb_get_modifier_mapping(x_.raw()), nullptr);
    if (reply) {
        const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(reply);
        const int total = 8 * reply->keycodes_per_modifier;
        for (int i = 0; i < total; ++i) {
            if (codes[i] != 0) {
                keys.set(codes[i]);
            }
        }
    }
    std::free(reply);
    return keys;
}

void XTestKeyboardEvents::fake(std::uint8_t type, xcb_keycode_t keycode) {
    xcb_test_fake_input(x_.raw(), type, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
}

QCoro::Task<bool> XTestKeyboardEvents::sendCommandKey(std::uint16_t keyCode, ProcessId target, std::stop_token token) {
    if (!isAvailable()) {
        co_return false;
    }
    const std::optional<std::uint32_t> keysym = X11KeyTable::keysymFor(keyCode);
    const std::optional<xcb_keycode_t> key = keysym ? keycodeFor(*keysym) : std::nullopt;
    const std::optional<xcb_keycode_t> control = keycodeFor(XK_Control_L);
    if (!key || !control) {
        co_return false;
    }

    QElapsedTimer waited;
    waited.start();
    std::bitset<256> held = keysDown();
    while (held.any() && waited.elapsed() < static_cast<qint64>(releaseWaitSeconds * 1000)) {
        co_await sleepFor(std::chrono::milliseconds(10), token);
        held = keysDown();
    }
    throwIfCancelled(token);

    // XTest types into whatever has focus: it must still be the target's window.
    const std::optional<RunningApplication> front = workspace_.frontmostApplication();
    if (!front || front->processIdentifier != target) {
        co_return false;
    }

    const std::bitset<256> modifiers = modifierKeys();
    std::vector<xcb_keycode_t> lifted;
    for (int code = 8; code < 256; ++code) {
        if (held.test(static_cast<std::size_t>(code))) {
            fake(XCB_KEY_RELEASE, static_cast<xcb_keycode_t>(code));
            lifted.push_back(static_cast<xcb_keycode_t>(code));
        }
    }
    fake(XCB_KEY_PRESS, *control);
    fake(XCB_KEY_PRESS, *key);
    fake(XCB_KEY_RELEASE, *key);
    fake(XCB_KEY_RELEASE, *control);
    // Only modifiers go back down: pressing a letter or the shortcut's key again would type it or
    // fire the shortcut.
    for (xcb_keycode_t code : lifted) {
        if (modifiers.test(code)) {
            fake(XCB_KEY_PRESS, code);
        }
    }
    // A round trip makes sure the server has processed the events before we report success.
    auto* focus = xcb_get_input_focus_reply(x_.raw(), xcb_get_input_focus(x_.raw()), nullptr);
    const bool delivered = focus != nullptr;
    std::free(focus);
    x_.scheduleDispatch();
    co_return delivered;
}

} // namespace parlune::x11
