#pragma once

#include "core/platform/MemoryPressureSource.h"

#include <QString>

#include <memory>
#include <vector>

class QSocketNotifier;

namespace parlune {

// Memory pressure from the kernel's pressure-stall information: one PSI trigger per level on
// /proc/pressure/memory, each a file descriptor that polls with POLLPRI when tasks stalled on
// memory longer than the threshold within the window. "some" stalls (at least one task waiting)
// are a warning, "full" stalls (every task waiting) are critical. Unprivileged processes may only
// use windows that are multiples of two seconds. Without PSI (older kernels, some containers)
// nothing is ever reported.
class LinuxMemoryPressureSource final : public MemoryPressureSource {
public:
    struct Trigger {
        MemoryPressureLevel level;
        QString line; // e.g. "some 150000 2000000": stall microseconds within a window
    };

    explicit LinuxMemoryPressureSource(QString pressureFile = QStringLiteral("/proc/pressure/memory"),
                                       std::vector<Trigger> triggers = defaultTriggers());
    ~LinuxMemoryPressureSource() override;

    static std::vector<Trigger> defaultTriggers();

    void start(std::function<void(MemoryPressureLevel)> handler) override;
    void cancel() override;

    // Whether every trigger was accepted by the kernel at the last start().
    bool isActive() const { return !watches_.empty(); }

private:
    struct Watch {
        int fd = -1;
        MemoryPressureLevel level;
        std::unique_ptr<QSocketNotifier> notifier;
    };

    QString file_;
    std::vector<Trigger> triggers_;
    std::function<void(MemoryPressureLevel)> handler_;
    std::vector<Watch> watches_;
};

} // namespace parlune
