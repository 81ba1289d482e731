#include "platform/x11/XTestKeyboardEvents.h"

#include "core/async/Sleep.h"
#include "core/platform/Workspace.h"
#include "platform/x11/X11KeyTable.h"
#include "platform/x11/XcbConnection.h"

#include <QElapsedTimer>

#include <X11/keysym.h>
#include <xcb/xcb_keysyms.h>
#include <xcb/xinput.h>
#include <xcb/xtest.h>

#include <chrono>
#include <cstdlib>
#include <vector>

namespace parlune::x11 {

namespace {

std::bitset<256> keyBits(const std::uint8_t* keys) {
    std::bitset<256> down;
    for (int byte = 0; byte < 32; ++byte) {
        for (int bit = 0; bit < 8; ++bit) {
            if (keys[byte] & (1u << bit)) {
                down.set(static_cast<std::size_t>(byte * 8 + bit));
            }
        }
    }
    return down;
}

} // namespace

XTestKeyboardEvents::XTestKeyboardEvents(XcbConnection& connection, Workspace& workspace)
    : x_(connection), workspace_(workspace) {
    // Watches keys waited out in vain until they are let go, so that pressing them anew counts.
    releaseWatch_.setInterval(50);
    QObject::connect(&releaseWatch_, &QTimer::timeout, [this] { forgetReleasedKeys(); });
    // Per-device key state needs XInput 2 (to list the devices) and its 1.x state request.
    const xcb_query_extension_reply_t* xinput = xcb_get_extension_data(x_.raw(), &xcb_input_id);
    if (xinput && xinput->present) {
        const XcbReply<xcb_input_xi_query_version_reply_t> version(
            xcb_input_xi_query_version_reply(x_.raw(), xcb_input_xi_query_version(x_.raw(), 2, 2), nullptr));
        xinput_ = version && version->major_version >= 2;
    }
}

XTestKeyboardEvents::HeldKeys XTestKeyboardEvents::heldKeys() const {
    HeldKeys held;
    if (!xinput_) {
        held.physical = keysDown();
        return held;
    }
    xcb_connection_t* c = x_.raw();
    const XcbReply<xcb_input_xi_query_device_reply_t> devices(
        xcb_input_xi_query_device_reply(c, xcb_input_xi_query_device(c, XCB_INPUT_DEVICE_ALL), nullptr));
    if (!devices) {
        held.physical = keysDown();
        return held;
    }
    for (auto it = xcb_input_xi_query_device_infos_iterator(devices.get()); it.rem;
         xcb_input_xi_device_info_next(&it)) {
        const xcb_input_xi_device_info_t* info = it.data;
        if (info->type != XCB_INPUT_DEVICE_TYPE_SLAVE_KEYBOARD) {
            continue;
        }
        const QByteArray name(xcb_input_xi_device_info_name(info),
                              xcb_input_xi_device_info_name_length(info));
        const XcbReply<xcb_input_query_device_state_reply_t> state(xcb_input_query_device_state_reply(
            c, xcb_input_query_device_state(c, static_cast<std::uint8_t>(info->deviceid)), nullptr));
        if (!state) {
            continue;
        }
        for (auto cls = xcb_input_query_device_state_classes_iterator(state.get()); cls.rem;
             xcb_input_input_state_next(&cls)) {
            if (cls.data->class_id != XCB_INPUT_INPUT_CLASS_KEY) {
                continue;
            }
            const auto* keys = reinterpret_cast<const xcb_input_key_state_t*>(cls.data);
            (name.contains("XTEST") ? held.synthetic : held.physical) |= keyBits(keys->keys);
        }
    }
    x_.scheduleDispatch();
    return held;
}

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
    x_.scheduleDispatch();
    return result;
}

std::bitset<256> XTestKeyboardEvents::keysDown() const {
    std::bitset<256> down;
    const XcbReply<xcb_query_keymap_reply_t> reply(
        xcb_query_keymap_reply(x_.raw(), xcb_query_keymap(x_.raw()), nullptr));
    if (reply) {
        down = keyBits(reply->keys);
    }
    x_.scheduleDispatch();
    return down;
}

std::bitset<256> XTestKeyboardEvents::modifierKeys() const {
    std::bitset<256> keys;
    const XcbReply<xcb_get_modifier_mapping_reply_t> reply(
        xcb_get_modifier_mapping_reply(x_.raw(), xcb_get_modifier_mapping(x_.raw()), nullptr));
    if (reply) {
        const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(reply.get());
        const int total = 8 * reply->keycodes_per_modifier;
        for (int i = 0; i < total; ++i) {
            if (codes[i] != 0) {
                keys.set(codes[i]);
            }
        }
    }
    return keys;
}

void XTestKeyboardEvents::fake(std::uint8_t type, xcb_keycode_t keycode) {
    xcb_test_fake_input(x_.raw(), type, keycode, XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
}

QCoro::Task<bool> XTestKeyboardEvents::sendCommandKey(std::uint16_t keyCode, ProcessId target,
                                                      std::stop_token token) {
    co_return co_await sendChord(KeyChord{keyCode, KeyChord::command}, target, std::move(token));
}

void XTestKeyboardEvents::forgetReleasedKeys() {
    const HeldKeys held = heldKeys();
    waitedOut_ &= held.physical | held.synthetic;
    if (waitedOut_.none()) {
        releaseWatch_.stop();
    }
}

XTestKeyboardEvents::HeldKeys XTestKeyboardEvents::heldKeysNotWaitedOut() {
    HeldKeys held = heldKeys();
    // A key let go since is no longer waited out: the next time it is held it is waited for again.
    waitedOut_ &= held.physical | held.synthetic;
    held.physical &= ~waitedOut_;
    held.synthetic &= ~waitedOut_;
    return held;
}

QCoro::Task<bool> XTestKeyboardEvents::sendChord(KeyChord chord, ProcessId target, std::stop_token token) {
    if (!isAvailable()) {
        co_return false;
    }
    const std::optional<std::uint32_t> keysym = X11KeyTable::keysymFor(chord.keyCode);
    const std::optional<xcb_keycode_t> key = keysym ? keycodeFor(*keysym) : std::nullopt;
    const std::optional<xcb_keycode_t> control = keycodeFor(XK_Control_L);
    const std::optional<xcb_keycode_t> shift = keycodeFor(XK_Shift_L);
    if (!key || !control || ((chord.modifiers & KeyChord::shift) && !shift)) {
        co_return false;
    }

    // Keys the user still holds once waited for their whole bound are not waited for again while
    // they stay down: a rewrite sends several chords, and each must not cost the bound anew.
    QElapsedTimer waited;
    waited.start();
    HeldKeys held = heldKeysNotWaitedOut();
    while (held.any() && waited.elapsed() < static_cast<qint64>(releaseWaitSeconds * 1000)) {
        co_await sleepFor(std::chrono::milliseconds(10), token);
        held = heldKeysNotWaitedOut();
    }
    throwIfCancelled(token);
    waitedOut_ |= held.physical | held.synthetic;
    if (waitedOut_.any()) {
        releaseWatch_.start();
    }
    held = heldKeys();

    // XTest types into whatever has focus: it must still be the target's window.
    const std::optional<RunningApplication> front = workspace_.frontmostApplication();
    if (!front || front->processIdentifier != target) {
        co_return false;
    }

    const std::bitset<256> modifiers = modifierKeys();
    std::vector<xcb_keycode_t> lifted;
    for (int code = 8; code < 256; ++code) {
        if (held.synthetic.test(static_cast<std::size_t>(code))) {
            fake(XCB_KEY_RELEASE, static_cast<xcb_keycode_t>(code));
            lifted.push_back(static_cast<xcb_keycode_t>(code));
        }
    }
    const bool withShift = (chord.modifiers & KeyChord::shift) != 0;
    const bool withControl = (chord.modifiers & KeyChord::command) != 0;
    if (withControl) {
        fake(XCB_KEY_PRESS, *control);
    }
    if (withShift) {
        fake(XCB_KEY_PRESS, *shift);
    }
    fake(XCB_KEY_PRESS, *key);
    fake(XCB_KEY_RELEASE, *key);
    if (withShift) {
        fake(XCB_KEY_RELEASE, *shift);
    }
    if (withControl) {
        fake(XCB_KEY_RELEASE, *control);
    }
    // Only modifiers go back down, for the synthetic keyboard's client that still holds them:
    // pressing a letter or the shortcut's key again would type it or fire the shortcut.
    for (xcb_keycode_t code : lifted) {
        if (modifiers.test(code)) {
            fake(XCB_KEY_PRESS, code);
        }
    }
    // A round trip makes sure the server has processed the events before we report success.
    const XcbReply<xcb_get_input_focus_reply_t> focus(
        xcb_get_input_focus_reply(x_.raw(), xcb_get_input_focus(x_.raw()), nullptr));
    const bool delivered = focus != nullptr;
    x_.scheduleDispatch();
    co_return delivered;
}

} // namespace parlune::x11
