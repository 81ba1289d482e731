#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <optional>

namespace parlune {

// What stat says about a regular file (symbolic links followed).
struct RegularFileStat {
    qint64 size = 0;
    std::int64_t modifiedNanoseconds = 0;
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
};

// Scanning folders the user does not control must never hang on a FIFO or a device node, so
// only regular files are ever opened, and then without blocking.
class RegularFile {
public:
    // nullopt for anything that is not a regular file (or a link to one), or cannot be stat'ed.
    static std::optional<RegularFileStat> stat(const QString& path);

    // Reads a whole regular file of at most `maxBytes`; nullopt with `problem` set otherwise.
    static std::optional<QByteArray> readSmall(const QString& path, qint64 maxBytes, QString& problem);
};

} // namespace parlune
