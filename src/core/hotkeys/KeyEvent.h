#pragma once

#include <QString>

#include <cstdint>

namespace parlune {

// Modifier flags of a key event, with the bit positions of the macOS event flags so that stored
// and compared values are the same on every platform.
namespace modifier_flag {
inline constexpr std::uint32_t capsLock = 1u << 16;
inline constexpr std::uint32_t shift = 1u << 17;
inline constexpr std::uint32_t control = 1u << 18;
inline constexpr std::uint32_t option = 1u << 19;
inline constexpr std::uint32_t command = 1u << 20;
inline constexpr std::uint32_t numericPad = 1u << 21;
inline constexpr std::uint32_t help = 1u << 22;
inline constexpr std::uint32_t function = 1u << 23;
} // namespace modifier_flag

// One key press as the shortcut recorder sees it. The platform layer fills it in: a macOS
// virtual key code, the characters the key types with no modifier held (empty for keys that type
// nothing) and the held modifiers as `modifier_flag` bits.
struct KeyEvent {
    std::uint32_t keyCode = 0;
    QString charactersIgnoringModifiers;
    std::uint32_t modifierFlags = 0;

    friend bool operator==(const KeyEvent&, const KeyEvent&) = default;
};

} // namespace parlune
