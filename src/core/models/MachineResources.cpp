#include "core/models/MachineResources.h"

#include "core/models/RegularFile.h"

#include <QList>
#include <QThread>

namespace parlune {

namespace {

// "MemTotal:       16318480 kB" → bytes; nullopt when the field is absent or malformed.
std::optional<qint64> field(const QByteArray& meminfo, const QByteArray& name) {
    for (const QByteArray& line : meminfo.split('\n')) {
        if (!line.startsWith(name + ':')) {
            continue;
        }
        const QList<QByteArray> parts = line.mid(name.size() + 1).simplified().split(' ');
        bool ok = false;
        const qint64 kilobytes = parts.value(0).toLongLong(&ok);
        if (!ok || kilobytes < 0 || kilobytes > (qint64{1} << 50) || parts.value(1) != "kB") {
            return std::nullopt;
        }
        return kilobytes * 1024;
    }
    return std::nullopt;
}

} // namespace

std::optional<MachineResources> MachineResources::fromMeminfo(const QByteArray& meminfo, int cores) {
    const std::optional<qint64> total = field(meminfo, "MemTotal");
    if (!total) {
        return std::nullopt;
    }
    MachineResources resources;
    resources.totalMemoryBytes = *total;
    // Kernels before 3.14 have no MemAvailable; free memory is then the closest figure.
    resources.availableMemoryBytes =
        field(meminfo, "MemAvailable").value_or(field(meminfo, "MemFree").value_or(0));
    resources.cores = std::max(1, cores);
    return resources;
}

std::optional<MachineResources> MachineResources::current() {
    QString problem;
    const std::optional<QByteArray> meminfo =
        RegularFile::readSmall(QStringLiteral("/proc/meminfo"), 1 << 16, problem);
    if (!meminfo) {
        return std::nullopt;
    }
    return fromMeminfo(*meminfo, QThread::idealThreadCount());
}

} // namespace parlune
