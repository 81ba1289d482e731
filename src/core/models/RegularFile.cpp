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
    QByteArray bytes;
    bytes.resize(static_cast<qsizetype>(info.st_size));
    qsizetype filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got =
            ::read(file.fd, bytes.data() + filled, static_cast<size_t>(bytes.size() - filled));
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            problem = QStringLiteral("cannot be read (%1)").arg(QString::fromLocal8Bit(std::strerror(errno)));
            return std::nullopt;
        }
        if (got == 0) {
            break; // shrank while being read: keep what is there, the parser judges it
        }
        filled += got;
    }
    bytes.truncate(filled);
    return bytes;
}

} // namespace parlune
