#pragma once

#include <cstdint>
#include <functional>
#include <optional>

struct wl_proxy;
struct xkb_context;
struct xkb_keymap;

namespace parlune::wayland {

class WaylandConnection;

// The virtual keyboard device of VirtualKeyboardEvents, on the connection's worker thread: the
// protocol objects and the keymap uploaded to the compositor (US layout, evdev key codes).
class VirtualKeyboard {
public:
    explicit VirtualKeyboard(WaylandConnection& connection);
    ~VirtualKeyboard();
    VirtualKeyboard(const VirtualKeyboard&) = delete;
    VirtualKeyboard& operator=(const VirtualKeyboard&) = delete;

    // Creates the device and uploads the keymap; false when the compositor lacks the protocol.
    bool start();
    // The evdev code of the key that types `keysym` without modifiers in our keymap.
    std::optional<std::uint32_t> keyFor(std::uint32_t keysym) const;
    // Presses and releases `key` with Control (and Shift), then calls `done` once the compositor has
    // handled the events (false when the connection failed).
    void typeChord(std::uint32_t key, bool control, bool shift, std::function<void(bool)> done);

private:
    void key(std::uint32_t code, bool down);
    void modifiers(std::uint32_t mask);

    WaylandConnection& connection_;
    xkb_context* context_ = nullptr;
    xkb_keymap* keymap_ = nullptr;
    wl_proxy* manager_ = nullptr;
    wl_proxy* keyboard_ = nullptr;
    std::uint32_t controlMask_ = 0;
    std::uint32_t shiftMask_ = 0;
};

} // namespace parlune::wayland
