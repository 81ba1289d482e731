#include "core/models/FreeSpace.h"

#include <QFile>

#include <sys/statvfs.h>

namespace parlune {

std::optional<qint64> freeSpaceOnDisk(const QString& folder) {
    struct statvfs info {};
    if (::statvfs(QFile::encodeName(folder).constData(), &info) != 0) {
        return std::nullopt;
    }
    // f_bavail, not f_bfree: blocks reserved for root are not ours to fill.
    return static_cast<qint64>(info.f_bavail) * static_cast<qint64>(info.f_frsize);
}

} // namespace parlune
