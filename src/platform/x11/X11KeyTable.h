#pragma once

#include <cstdint>
#include <optional>

namespace parlune::x11 {

// Stored shortcuts keep macOS virtual key codes and Carbon modifier masks on every platform; this
// is the one place that turns them into X keysyms and core modifier masks.
class X11KeyTable {
public:
    // The keysym for a macOS virtual key code (ANSI layout); nullopt for codes without one.
    static std::optional<std::uint32_t> keysymFor(std::uint32_t macKeyCode);
    // The macOS virtual key code of an X keysym (also what Wayland's XKB reports); letters
    // match in either case. nullopt for keys the table does not hold.
    static std::optional<std::uint32_t> macKeyCodeFor(std::uint32_t keysym);
    // Option → Mod1 (Alt), Control → Control, Shift → Shift, Command → Mod4 (Super).
    static std::uint16_t modifierMaskFor(std::uint32_t carbonModifiers);
};

} // namespace parlune::x11
