#include "core/shell/TransientStatus.h"

namespace parlune {

TransientStatus::TransientStatus(std::function<void(const QString&)> present,
                                 std::chrono::milliseconds duration)
    : present_(std::move(present)) {
    reset_.setSingleShot(true);
    reset_.setInterval(duration);
    QObject::connect(&reset_, &QTimer::timeout, [this] {
        current_.reset();
        changed.emit();
    });
}

void TransientStatus::show(const QString& message) {
    reset_.stop();
    current_ = message;
    present_(message);
    reset_.start();
    changed.emit();
}

QString TransientStatus::toolTip() const {
    return current_.value_or(QStringLiteral("Parlune"));
}

} // namespace parlune
