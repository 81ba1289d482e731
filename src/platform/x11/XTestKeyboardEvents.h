#pragma once

#include "core/platform/KeyboardEvents.h"

#include <xcb/xcb.h>

#include <QTimer>

#include <bitset>
#include <optional>

namespace parlune {
class Workspace;
}

namespace parlune::x11 {

class XcbConnection;

// Synthetic Control+key through XTest, which the server treats like real typing (XSendEvent
// events are marked synthetic and ignored by many toolkits). "Command" is Control on Linux.
// Keys still down when we are asked to send (the shortcut's key, Alt held by the user) would spoil
// the chord: while the shortcut's key is down our grab is active and the chord comes back to us,
// and a held Alt turns Ctrl+C into Ctrl+Alt+C. So the chord waits, cancellably and for at most
// `releaseWaitSeconds`, until every keyboard has let go. Keys that are then still held by a
// synthetic keyboard (another XTest client such as xdotool) are lifted for the chord and their
// modifiers pressed again afterwards; keys held on a real keyboard cannot be lifted by XTest (and
// pressing them again synthetically would leave them stuck), so those are left alone. A key whose
// release was waited for in vain is not waited for again until it has been let go, so a held
// shortcut costs one bounded wait per rewrite, not one per chord.
class XTestKeyboardEvents final : public KeyboardEvents {
public:
    XTestKeyboardEvents(XcbConnection& connection, Workspace& workspace);

    static constexpr double releaseWaitSeconds = 2.0;

    // Whether the server offers XTest.
    bool isAvailable() const;

    QCoro::Task<bool> sendCommandKey(std::uint16_t keyCode, ProcessId target, std::stop_token token) override;
    QCoro::Task<bool> sendChord(KeyChord chord, ProcessId target, std::stop_token token) override;

    struct HeldKeys {
        std::bitset<256> physical;  // on real keyboards
        std::bitset<256> synthetic; // on XTest devices
        bool any() const { return physical.any() || synthetic.any(); }
    };
    // Keys down now, by kind of keyboard. Without XInput every key counts as physical.
    HeldKeys heldKeys() const;
    // Keys down now on the core keyboard (all keyboards together).
    std::bitset<256> keysDown() const;

private:
    HeldKeys heldKeysNotWaitedOut();
    void forgetReleasedKeys();
    std::optional<xcb_keycode_t> keycodeFor(std::uint32_t keysym) const;
    std::bitset<256> modifierKeys() const;
    void fake(std::uint8_t type, xcb_keycode_t keycode);

    XcbConnection& x_;
    Workspace& workspace_;
    bool xinput_ = false;
    std::bitset<256> waitedOut_;
    QTimer releaseWatch_;
};

} // namespace parlune::x11
