#include "platform/wayland/VirtualKeyboard.h"

#include "platform/wayland/WaylandConnection.h"
#include "virtual-keyboard-client-protocol.h"

#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

#include <sys/mman.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace parlune::wayland {

namespace {

// The protocol's key codes are evdev codes, XKB's are offset by 8.
constexpr std::uint32_t evdevOffset = 8;
constexpr std::uint32_t keymapFormatXkbV1 = 1;
constexpr std::uint32_t pressed = 1;
constexpr std::uint32_t released = 0;

std::uint32_t nowMs() {
    using namespace std::chrono;
    return static_cast<std::uint32_t>(
        duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count());
}

} // namespace

VirtualKeyboard::VirtualKeyboard(WaylandConnection& connection) : connection_(connection) {}

VirtualKeyboard::~VirtualKeyboard() {
    if (keyboard_) {
        zwp_virtual_keyboard_v1_destroy(reinterpret_cast<zwp_virtual_keyboard_v1*>(keyboard_));
    }
    if (manager_) {
        wl_proxy_destroy(manager_);
    }
    xkb_keymap_unref(keymap_);
    xkb_context_unref(context_);
}

bool VirtualKeyboard::start() {
    manager_ = static_cast<wl_proxy*>(
        connection_.bind("zwp_virtual_keyboard_manager_v1", &zwp_virtual_keyboard_manager_v1_interface, 1));
    if (!manager_ || !connection_.seat()) {
        return false;
    }
    context_ = xkb_context_new(XKB_CONTEXT_NO_FLAGS);
    const xkb_rule_names names{"evdev", "pc105", "us", "", ""};
    keymap_ = context_ ? xkb_keymap_new_from_names(context_, &names, XKB_KEYMAP_COMPILE_NO_FLAGS) : nullptr;
    if (!keymap_) {
        return false;
    }
    controlMask_ = 1u << xkb_keymap_mod_get_index(keymap_, XKB_MOD_NAME_CTRL);
    shiftMask_ = 1u << xkb_keymap_mod_get_index(keymap_, XKB_MOD_NAME_SHIFT);
    const std::unique_ptr<char, decltype(&std::free)> text(
        xkb_keymap_get_as_string(keymap_, XKB_KEYMAP_FORMAT_TEXT_V1), &std::free);
    if (!text) {
        return false;
    }
    // The compositor maps the keymap from a file: it travels as a memory file, terminator included.
    const std::size_t size = std::strlen(text.get()) + 1;
    const int fd = ::memfd_create("parlune-keymap", MFD_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const bool written = ::write(fd, text.get(), size) == static_cast<ssize_t>(size);
    if (written) {
        keyboard_ = reinterpret_cast<wl_proxy*>(zwp_virtual_keyboard_manager_v1_create_virtual_keyboard(
            reinterpret_cast<zwp_virtual_keyboard_manager_v1*>(manager_), connection_.seat()));
        zwp_virtual_keyboard_v1_keymap(reinterpret_cast<zwp_virtual_keyboard_v1*>(keyboard_),
                                       keymapFormatXkbV1, fd, static_cast<std::uint32_t>(size));
    }
    ::close(fd);
    // A compositor that refuses us (no permission for this client) closes the connection.
    return written && wl_display_roundtrip(connection_.display()) >= 0;
}

std::optional<std::uint32_t> VirtualKeyboard::keyFor(std::uint32_t keysym) const {
    if (!keymap_) {
        return std::nullopt;
    }
    for (xkb_keycode_t code = xkb_keymap_min_keycode(keymap_); code <= xkb_keymap_max_keycode(keymap_);
         ++code) {
        const xkb_keysym_t* symbols = nullptr;
        const int count = xkb_keymap_key_get_syms_by_level(keymap_, code, 0, 0, &symbols);
        if (count == 1 && symbols[0] == keysym && code >= evdevOffset) {
            return code - evdevOffset;
        }
    }
    return std::nullopt;
}

void VirtualKeyboard::key(std::uint32_t code, bool down) {
    zwp_virtual_keyboard_v1_key(reinterpret_cast<zwp_virtual_keyboard_v1*>(keyboard_), nowMs(), code,
                                down ? pressed : released);
}

void VirtualKeyboard::modifiers(std::uint32_t mask) {
    zwp_virtual_keyboard_v1_modifiers(reinterpret_cast<zwp_virtual_keyboard_v1*>(keyboard_), mask, 0, 0, 0);
}

void VirtualKeyboard::typeChord(std::uint32_t code, bool control, bool shift,
                                std::function<void(bool)> done) {
    const std::optional<std::uint32_t> controlKey = keyFor(XKB_KEY_Control_L);
    const std::optional<std::uint32_t> shiftKey = keyFor(XKB_KEY_Shift_L);
    if (!keyboard_ || (control && !controlKey) || (shift && !shiftKey)) {
        done(false);
        return;
    }
    // Modifier keys and the modifier state both: toolkits read the state, compositors' bindings the
    // keys.
    std::uint32_t mask = 0;
    if (control) {
        key(*controlKey, true);
        modifiers(mask |= controlMask_);
    }
    if (shift) {
        key(*shiftKey, true);
        modifiers(mask |= shiftMask_);
    }
    key(code, true);
    key(code, false);
    if (shift) {
        key(*shiftKey, false);
        modifiers(mask &= ~shiftMask_);
    }
    if (control) {
        key(*controlKey, false);
        modifiers(mask &= ~controlMask_);
    }
    // The compositor has handled the keys once it answers a sync sent after them.
    struct Pending {
        std::function<void(bool)> done;
    };
    static const wl_callback_listener listener{[](void* data, wl_callback* callback, std::uint32_t) {
        std::unique_ptr<Pending> pending(static_cast<Pending*>(data));
        wl_callback_destroy(callback);
        pending->done(true);
    }};
    wl_callback* sync = wl_display_sync(connection_.display());
    wl_callback_add_listener(sync, &listener, new Pending{std::move(done)});
}

} // namespace parlune::wayland
