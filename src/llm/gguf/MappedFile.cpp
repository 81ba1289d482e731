#include "llm/gguf/MappedFile.h"

#include "llm/gguf/GgufError.h"

#include <cerrno>
#include <cstring>
#include <string>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace parlune::llm {

namespace {

[[noreturn]] void failWithErrno(const std::filesystem::path& path, const char* action, int error) {
    throw GgufError(path.string() + ": cannot " + action + ": " + std::strerror(error));
}

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }

private:
    int fd_;
};

} // namespace

MappedFile::MappedFile(const std::filesystem::path& path) {
    const FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0) {
        failWithErrno(path, "open the file", errno);
    }
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) {
        failWithErrno(path, "read the file's size", errno);
    }
    if (!S_ISREG(info.st_mode)) {
        throw GgufError(path.string() + ": not a regular file");
    }
    size_ = static_cast<std::size_t>(info.st_size);
    if (size_ == 0) {
        return; // mmap refuses empty ranges; an empty span is the honest view of an empty file
    }
    void* mapping = ::mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd.get(), 0);
    if (mapping == MAP_FAILED) {
        const int error = errno;
        size_ = 0;
        failWithErrno(path, "map the file into memory", error);
    }
    data_ = static_cast<const std::byte*>(mapping);
}

MappedFile::~MappedFile() {
    if (data_ != nullptr) {
        ::munmap(const_cast<std::byte*>(data_), size_);
    }
}

} // namespace parlune::llm
