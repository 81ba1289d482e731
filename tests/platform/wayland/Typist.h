#pragma once

#include <cstdint>
#include <memory>

namespace parlune::wayland {
class VirtualKeyboard;
class WaylandConnection;
} // namespace parlune::wayland

namespace parlune::test {

// The user at the keyboard: a virtual keyboard device of its own (not the port's), which types
// the keys a test needs to select text and save, and waits until the compositor took them.
class Typist {
public:
    explicit Typist(wayland::WaylandConnection& connection);
    ~Typist();
    Typist(const Typist&) = delete;
    Typist& operator=(const Typist&) = delete;

    bool isReady() const { return ready_; }
    // Taps the key that types `keysym`, with Control and Shift as asked; false when it could not.
    bool tap(std::uint32_t keysym, bool control = false, bool shift = false);

private:
    wayland::WaylandConnection& connection_;
    std::unique_ptr<wayland::VirtualKeyboard> keyboard_;
    bool ready_ = false;
};

} // namespace parlune::test
