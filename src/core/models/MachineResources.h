#pragma once

#include <QByteArray>

#include <optional>

namespace parlune {

// The memory and processor cores of this computer, as far as choosing a model is concerned.
struct MachineResources {
    qint64 totalMemoryBytes = 0;
    qint64 availableMemoryBytes = 0;
    int cores = 1;

    // From the text of /proc/meminfo (MemTotal, MemAvailable; kB); nullopt if MemTotal is missing.
    static std::optional<MachineResources> fromMeminfo(const QByteArray& meminfo, int cores);
    // This computer now; nullopt when /proc/meminfo cannot be read.
    static std::optional<MachineResources> current();
};

} // namespace parlune
