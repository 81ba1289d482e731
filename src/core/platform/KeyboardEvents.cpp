#include "core/platform/KeyboardEvents.h"

namespace parlune {

QCoro::Task<bool> KeyboardEvents::sendChord(KeyChord chord, ProcessId target, std::stop_token token) {
    if (chord.modifiers != KeyChord::command) {
        co_return false;
    }
    co_return co_await sendCommandKey(chord.keyCode, target, std::move(token));
}

} // namespace parlune
