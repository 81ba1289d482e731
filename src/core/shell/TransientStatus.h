#pragma once

#include "core/async/ChangeSignal.h"

#include <QString>
#include <QTimer>

#include <chrono>
#include <functional>
#include <optional>

namespace parlune {

// The short message of the tray item: shown at once, replacing any message still shown, and cleared
// after a fixed time counted from the newest message. Main thread only.
class TransientStatus {
public:
    static constexpr std::chrono::milliseconds defaultDuration{3000};

    // `present` puts a new message in front of the user (the floating panel).
    explicit TransientStatus(std::function<void(const QString&)> present,
                             std::chrono::milliseconds duration = defaultDuration);
    TransientStatus(const TransientStatus&) = delete;
    TransientStatus& operator=(const TransientStatus&) = delete;

    void show(const QString& message);

    const std::optional<QString>& currentMessage() const { return current_; }
    // The tray item's tool tip: the current message, else the product name.
    QString toolTip() const;

    // Emitted when a message is shown and when it is cleared.
    ChangeSignal<> changed;

private:
    std::function<void(const QString&)> present_;
    std::optional<QString> current_;
    QTimer reset_;
};

} // namespace parlune
