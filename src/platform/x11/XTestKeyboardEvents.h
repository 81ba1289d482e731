#pragma once

#include "core/platform/KeyboardEvents.h"

#include <xcb/xcb.h>

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
// `releaseWait`, until every key is up; whatever is still down then is lifted for the chord and
// its modifiers pressed again afterwards.
class XTestKeyboardEvents final : public KeyboardEvents {
public:
    XTestKeyboardEvents(XcbConnection& connection, Workspace& workspace);

    static constexpr double releaseWaitSeconds = 2.0;

    // Whether the server offers XTest.
    bool isAvailable() const;

    QCoro::Task<bool> sendCommandKey(std::uint16_t keyCode, ProcessId target, std::stop_token token) override;

    // Keys down now on the server's core keyboard (real keyboards and synthetic ones alike).
    std::bitset<256> keysDown() const;

private:
    std::optional<xcb_keycode_t> keycodeFor(std::uint32_t keysym) const;
    std::bitset<256> modifierKeys() const;
    void fake(std::uint8_t type, xcb_keycode_t keycode);

    XcbConnection& x_;
    Workspace& workspace_;
};

} // namespace parlune::x11
