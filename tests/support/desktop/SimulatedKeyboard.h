#pragma once

#include "core/platform/KeyboardEvents.h"

namespace parlune::test {

class SimulatedDesktop;

// Synthetic command keys for the simulated desktop: they take effect after the desktop's key delay.
class SimulatedKeyboard final : public KeyboardEvents {
public:
    explicit SimulatedKeyboard(SimulatedDesktop& desktop) : desktop_(desktop) {}

    QCoro::Task<bool> sendCommandKey(std::uint16_t keyCode, ProcessId target, std::stop_token token) override;

private:
    SimulatedDesktop& desktop_;
};

} // namespace parlune::test
