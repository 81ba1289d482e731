#pragma once

#include <atomic>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

#include <sys/stat.h>

namespace parlune::llm {

class MappingGuard;

// A whole regular file mapped read-only into memory for the object's life. Pages are shared with
// the page cache, so mapping a model costs no copy and no anonymous memory. The file may be
// truncated, overwritten or replaced while mapped: the mapping then never faults the process
// (see MappingGuard), and changed() says that what was read from it may be wrong.
class MappedFile {
public:
    // Throws GgufError (naming the path and the system's reason) when the file cannot be
    // opened, is not a regular file or cannot be mapped. Never blocks on a FIFO or a device.
    explicit MappedFile(const std::filesystem::path& path);
    ~MappedFile();

    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    std::span<const std::byte> bytes() const { return {data_, size_}; }

    // Whether the file changed since it was mapped: a lease-break notice, a fault in the
    // mapping, or a new size or modification time. Once true, stays true.
    bool changed() const;
    // Whether a writer is held back until we let go (a read lease), rather than noticed after.
    bool leased() const;

    // Why a file of this st_mode cannot be mapped ("is not a regular file (a FIFO)"); empty for
    // a regular file.
    static std::string nonRegularReason(mode_t mode);

private:
    const std::byte* data_ = nullptr;
    std::size_t size_ = 0;
    int fd_ = -1;
    struct stat opened_ {};
    mutable std::atomic<bool> changed_{false};
    std::unique_ptr<MappingGuard> guard_;
};

} // namespace parlune::llm
