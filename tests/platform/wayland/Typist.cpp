#include "Typist.h"

#include "platform/wayland/VirtualKeyboard.h"
#include "platform/wayland/WaylandConnection.h"
#include "support/RunTask.h"

#include <atomic>

namespace parlune::test {

Typist::Typist(wayland::WaylandConnection& connection) : connection_(connection) {
    connection_.postAndWait([this] {
        keyboard_ = std::make_unique<wayland::VirtualKeyboard>(connection_);
        ready_ = keyboard_->start();
    });
}

Typist::~Typist() {
    connection_.postAndWait([this] { keyboard_.reset(); });
}

bool Typist::tap(std::uint32_t keysym, bool control, bool shift) {
    auto outcome = std::make_shared<std::atomic<int>>(-1);
    connection_.post([this, keysym, control, shift, outcome] {
        const auto key = keyboard_->keyFor(keysym);
        if (!key) {
            *outcome = 0;
            return;
        }
        keyboard_->typeChord(*key, control, shift, [outcome](bool sent) { *outcome = sent ? 1 : 0; });
    });
    pumpUntil([&] { return *outcome >= 0; }, 3000);
    return *outcome == 1;
}

} // namespace parlune::test
