#pragma once

#include <cstddef>
#include <filesystem>
#include <span>

namespace parlune::llm {

// A whole file mapped read-only into memory for the object's life. Pages are shared with the
// page cache, so mapping a model costs no copy and no anonymous memory. Like any mapping, it
// assumes nobody truncates the file meanwhile (the kernel would fault reads past the new end).
class MappedFile {
public:
    // Throws GgufError (naming the path and the system's reason) when the file cannot be
    // opened, is not a regular file or cannot be mapped.
    explicit MappedFile(const std::filesystem::path& path);
    ~MappedFile();

    MappedFile(const MappedFile&) = delete;
    MappedFile& operator=(const MappedFile&) = delete;

    std::span<const std::byte> bytes() const { return {data_, size_}; }

private:
    const std::byte* data_ = nullptr;
    std::size_t size_ = 0;
};

} // namespace parlune::llm
