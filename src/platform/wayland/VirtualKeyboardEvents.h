#pragma once

#include "core/platform/KeyboardEvents.h"

#include <memory>

namespace parlune {
class Workspace;
}

namespace parlune::wayland {

class WaylandConnection;
class VirtualKeyboard;

// Synthetic Control+key through wlroots' zwp_virtual_keyboard_v1: a keyboard device of our own
// with a keymap we generate, whose keys the compositor delivers to the focused window like typing.
// The held-modifier rule of the X11 port holds here by construction: the compositor keeps key and
// modifier state per keyboard device and gives the focused window the state of the device that
// typed last, so Alt still held on the user's keyboard does not turn our Ctrl+C into Ctrl+Alt+C,
// and the shortcut, consumed by the compositor's own binding, never sees our chord. As on X11 the
// chord is sent only while the target process has the focus.
class VirtualKeyboardEvents final : public KeyboardEvents {
public:
    VirtualKeyboardEvents(WaylandConnection& connection, Workspace& workspace);
    ~VirtualKeyboardEvents() override;
    VirtualKeyboardEvents(const VirtualKeyboardEvents&) = delete;
    VirtualKeyboardEvents& operator=(const VirtualKeyboardEvents&) = delete;

    // Whether the compositor offers the protocol and took our keymap.
    bool isAvailable() const { return available_; }

    QCoro::Task<bool> sendCommandKey(std::uint16_t keyCode, ProcessId target, std::stop_token token) override;
    QCoro::Task<bool> sendChord(KeyChord chord, ProcessId target, std::stop_token token) override;

private:
    WaylandConnection& connection_;
    Workspace& workspace_;
    // Made and destroyed on the worker thread, used only there.
    std::unique_ptr<VirtualKeyboard> device_;
    bool available_ = false;
};

} // namespace parlune::wayland
