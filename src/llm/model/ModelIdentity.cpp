#include "llm/model/ModelIdentity.h"

#include "llm/gguf/GgufFile.h"

#include <sys/stat.h>

#include <cstddef>

namespace parlune::llm {

namespace {

// 64-bit FNV-1a: not cryptographic; it only has to tell apart headers that differ.
std::uint64_t hashBytes(std::span<const std::byte> bytes) {
    std::uint64_t hash = 0xCBF29CE484222325ull;
    for (const std::byte b : bytes) {
        hash = (hash ^ static_cast<std::uint64_t>(b)) * 0x100000001B3ull;
    }
    return hash;
}

} // namespace

ModelIdentity ModelIdentity::of(const GgufFile& file) {
    ModelIdentity identity;
    identity.size = file.fileSize();
    identity.headerHash = hashBytes(file.headerBytes());
    struct stat status {};
    if (::stat(file.source().c_str(), &status) == 0) {
        identity.device = static_cast<std::uint64_t>(status.st_dev);
        identity.inode = static_cast<std::uint64_t>(status.st_ino);
        identity.modifiedNanoseconds =
            static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1'000'000'000 + status.st_mtim.tv_nsec;
    }
    return identity;
}

} // namespace parlune::llm
