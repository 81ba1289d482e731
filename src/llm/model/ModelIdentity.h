#pragma once

#include <cstdint>

namespace parlune::llm {

class GgufFile;

// Which model file computed something: the file itself (device, inode, size, modification
// time) and a hash of its header and tensor table (metadata, tensor names, shapes, types and
// offsets). Neither the same path holding another file nor a same-shaped file of another weight
// type has the same identity, so state computed by one model is never taken for another's.
struct ModelIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::uint64_t size = 0;
    std::int64_t modifiedNanoseconds = 0;
    std::uint64_t headerHash = 0;

    bool operator==(const ModelIdentity&) const = default;

    // A file read from memory has no file identity; its header hash still tells it apart.
    static ModelIdentity of(const GgufFile& file);
};

} // namespace parlune::llm
