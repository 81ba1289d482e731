#pragma once

#include "core/selection/SelectionReplacing.h"
#include "core/selection/TextReplacementError.h"

#include <coroutine>

namespace parlune::app {

// Stands in for the selection ports in a session we cannot serve (no X server, an unsupported
// Wayland desktop): every operation fails as an application we cannot reach would.
class DesktopUnavailableReplacer final : public SelectionReplacing {
public:
    QCoro::Task<CapturedSelection> capture(std::stop_token) override {
        co_await std::suspend_never{};
        throw TextReplacementError(TextReplacementError::Kind::accessibilityPermissionMissing);
    }
    QCoro::Task<void> replace(QString, CapturedSelection, std::stop_token) override {
        co_await std::suspend_never{};
        throw TextReplacementError(TextReplacementError::Kind::accessibilityPermissionMissing);
    }
};

} // namespace parlune::app
