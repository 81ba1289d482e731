#pragma once

#include "core/platform/ProcessId.h"

#include <QCoro/QCoroTask>

#include <cstdint>
#include <stop_token>

namespace parlune {

// A key with the modifiers pressed around it. Key codes are the stored virtual key codes.
struct KeyChord {
    enum Modifier : std::uint8_t {
        command = 1, // Control on Linux
        shift = 2,
    };
    std::uint16_t keyCode = 0;
    std::uint8_t modifiers = command;

    friend bool operator==(const KeyChord&, const KeyChord&) = default;
};

// Synthetic key presses sent to another application.
class KeyboardEvents {
public:
    // Virtual key codes of the letters the pipeline sends (stored values, every platform).
    static constexpr std::uint16_t keyCodeC = 8;
    static constexpr std::uint16_t keyCodeV = 9;

    virtual ~KeyboardEvents() = default;

    // Sends key down then key up of `keyCode` with the command modifier alone (Control on Linux),
    // whatever keys the user still holds, to the process's focused window. May wait (briefly,
    // cancellably) for the user to let go of the shortcut. Returns false when the events cannot be
    // made or delivered; throws CancellationError when `token` is stopped.
    virtual QCoro::Task<bool> sendCommandKey(std::uint16_t keyCode, ProcessId target,
                                             std::stop_token token) = 0;

    // The same for any chord (Control+Shift+C for a terminal's copy). The default sends chords of
    // the command modifier alone and refuses the rest.
    virtual QCoro::Task<bool> sendChord(KeyChord chord, ProcessId target, std::stop_token token);
};

} // namespace parlune
