#include "desktop/SimulatedKeyboard.h"

#include "core/async/Sleep.h"
#include "desktop/SimulatedDesktop.h"

namespace parlune::test {

QCoro::Task<bool> SimulatedKeyboard::sendCommandKey(std::uint16_t keyCode, ProcessId target,
                                                    std::stop_token token) {
    throwIfCancelled(token);
    if (!desktop_.keyboardAvailable) {
        co_return false;
    }
    if (desktop_.modifierReleaseWaitMs > 0) {
        co_await sleepFor(std::chrono::milliseconds(desktop_.modifierReleaseWaitMs), token);
    }
    desktop_.sendCommandKey(keyCode, target);
    co_return true;
}

} // namespace parlune::test
