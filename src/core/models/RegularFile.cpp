#include "core/models/RegularFile.h"

#include <QFile>

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace parlune {

namespace {

RegularFileStat fromStat(const struct stat& info) {
    RegularFileStat result;
    result.size = static_cast<qint64>(info.st_size);
    result.modifiedNanoseconds = static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 +
                                 static_cast<std::int64_t>(info.st_mtim.tv_nsec);
    result.device = static_cast<std::uint64_t>(info.st_dev);
    result.inode = static_cast<std::uint64_t>(info.st_ino);
    return result;
}

// Closes the descriptor on every path out.
struct Descriptor {
    int fd = -1;
    ~Descriptor() {
        if (fd >= 0) {
            ::close(fd);
        }
    }
};

} // namespace

std::optional<RegularFileStat> RegularFile::stat(const QString& path) {
    struct stat info {};
    if (::stat(QFile::encodeName(path).constData(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return std::nullopt;
    }
    return fromStat(info);
}

std::optional<QByteArray> RegularFile::readSmall(const QString& path, qint64 maxBytes, QString& problem) {
    // O_NONBLOCK: opening a FIFO for reading would otherwise wait for a writer.
    Descriptor file{
        ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY)};
    if (file.fd < 0) {
        problem = QStringLiteral("cannot be opened (%1)").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return std::nullopt;
    }
    struct stat info {};
    if (::fstat(file.fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        problem = QStringLiteral("is not a regular file");
        return std::nullopt;
    }
    if (info.st_size > maxBytes) {
        problem =
            QStringLiteral("is %1 bytes, more than a manifest can be").arg(static_cast<qint64>(info.st_size));
        return std::nullopt;
    }
    // Read to the end rather than trusting st_size: files under /proc report a size of 0.
    QByteArray bytes;
    char chunk[16384];
    for (;;) {
        const ssize_t got = ::read(file.fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            problem = QStringLiteral("cannot be read (%1)").arg(QString::fromLocal8Bit(std::strerror(errno)));
            return std::nullopt;
        }
        if (got == 0) {
            break;
        }
        bytes.append(chunk, got);
        if (bytes.size() > maxBytes) {
            problem = QStringLiteral("is more than %1 bytes").arg(maxBytes);
            return std::nullopt;
        }
    }
    return bytes;
}

} // namespace parlune
