#include "llm/gguf/MappedFile.h"

#include "llm/gguf/GgufError.h"
#include "llm/gguf/MappingGuard.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace parlune::llm {

namespace {

[[noreturn]] void failWithErrno(const std::filesystem::path& path, const char* action, int error) {
    throw GgufError(path.string() + ": cannot " + action + ": " + std::strerror(error));
}

void requireRegular(const std::filesystem::path& path, const struct stat& info) {
    if (!S_ISREG(info.st_mode)) {
        throw GgufError(path.string() + ": " + MappedFile::nonRegularReason(info.st_mode));
    }
}

bool sameContent(const struct stat& a, const struct stat& b) {
    return a.st_size == b.st_size && a.st_mtim.tv_sec == b.st_mtim.tv_sec &&
           a.st_mtim.tv_nsec == b.st_mtim.tv_nsec;
}

} // namespace

std::string MappedFile::nonRegularReason(mode_t mode) {
    if (S_ISREG(mode)) {
        return {};
    }
    const char* kind = "not a plain file";
    if (S_ISDIR(mode)) {
        kind = "a directory";
    } else if (S_ISFIFO(mode)) {
        kind = "a FIFO";
    } else if (S_ISSOCK(mode)) {
        kind = "a socket";
    } else if (S_ISCHR(mode) || S_ISBLK(mode)) {
        kind = "a device";
    }
    return std::string("is not a regular file (") + kind + ")";
}

MappedFile::MappedFile(const std::filesystem::path& path) {
    // Checked by name first (a socket cannot be opened at all), then again on what was opened,
    // which O_NONBLOCK keeps from waiting on a FIFO or a device.
    struct stat named {};
    if (::stat(path.c_str(), &named) != 0) {
        failWithErrno(path, "open the file", errno);
    }
    requireRegular(path, named);
    fd_ = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd_ < 0) {
        failWithErrno(path, "open the file", errno);
    }
    try {
        if (::fstat(fd_, &opened_) != 0) {
            failWithErrno(path, "read the file's size", errno);
        }
        requireRegular(path, opened_);
        size_ = static_cast<std::size_t>(opened_.st_size);
        if (size_ == 0) {
            return; // mmap refuses empty ranges; an empty span is the honest view of an empty file
        }
        void* mapping = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd_, 0);
        if (mapping == MAP_FAILED) {
            const int error = errno;
            size_ = 0;
            failWithErrno(path, "map the file into memory", error);
        }
        data_ = static_cast<const std::byte*>(mapping);
        guard_ = std::make_unique<MappingGuard>(data_, size_, fd_);
    } catch (...) {
        ::close(fd_);
        throw;
    }
}

MappedFile::~MappedFile() {
    guard_.reset(); // before the range goes away
    if (data_ != nullptr) {
        ::munmap(const_cast<std::byte*>(data_), size_);
    }
    ::close(fd_);
}

bool MappedFile::changed() const {
    if (changed_.load(std::memory_order_relaxed)) {
        return true;
    }
    struct stat now {};
    if ((guard_ && guard_->changed()) || ::fstat(fd_, &now) != 0 || !sameContent(now, opened_)) {
        changed_.store(true, std::memory_order_relaxed);
        return true;
    }
    return false;
}

bool MappedFile::leased() const {
    return guard_ && guard_->leased();
}

} // namespace parlune::llm
