#pragma once

#include <QString>

#include <cstdint>
#include <iosfwd>

namespace parlune {

// Carbon hot-key modifier masks: the stored representation of modifiers on every platform.
namespace carbon_modifier {
inline constexpr std::uint32_t command = 256;
inline constexpr std::uint32_t shift = 512;
inline constexpr std::uint32_t option = 2048;
inline constexpr std::uint32_t control = 4096;
} // namespace carbon_modifier

// Virtual key codes the product names itself.
namespace key_code {
inline constexpr std::uint32_t h = 4;
inline constexpr std::uint32_t r = 15;
inline constexpr std::uint32_t returnKey = 36;
inline constexpr std::uint32_t tab = 48;
inline constexpr std::uint32_t space = 49;
inline constexpr std::uint32_t escape = 53;
} // namespace key_code

// The global shortcut: a macOS virtual key code, Carbon modifier masks and the text shown for
// it. Equality includes the display name, so renaming a shortcut counts as a change.
struct HotKeyShortcut {
    std::uint32_t keyCode = 0;
    std::uint32_t carbonModifiers = 0;
    QString displayName;

    // Option+Space (Alt+Space on Linux): the shortcut of a fresh installation.
    static HotKeyShortcut defaultShortcut();

    friend bool operator==(const HotKeyShortcut&, const HotKeyShortcut&) = default;
};

// "Option+Space (49/2048)", for test failure messages.
void PrintTo(const HotKeyShortcut& shortcut, std::ostream* out);

} // namespace parlune
