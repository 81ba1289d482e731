#pragma once

#include "llm/gguf/GgufError.h"
#include "llm/gguf/GgufValueType.h"
#include "llm/tensor/GgmlType.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace parlune::llm {

class MappedFile;

struct GgufTensorInfo {
    std::string name;
    std::vector<std::int64_t> dims; // dims[0] is the row length (innermost, contiguous)
    GgmlType type = GgmlType::F32;
    std::uint64_t offset = 0; // from the start of the data section
    std::size_t byteSize = 0;
    std::int64_t elementCount = 0;
};

// A GGUF (version 2 or 3) model or vocabulary file. The file stays memory-mapped read-only for
// the object's life and tensor bytes are views into the mapping, never copies. Everything the
// accessors may touch (header, every metadata value including nested arrays, the tensor table and
// each tensor's data range) is validated when the file is opened; accessors never fail.
class GgufFile {
public:
    static std::shared_ptr<const GgufFile> open(const std::filesystem::path& path); // throws GgufError

    // Parses a file image held in memory (tests, fuzzing). `sourceName` stands for the path in
    // error messages. Unlike a mapping, the buffer only guarantees 16-byte alignment of tensor data.
    static std::shared_ptr<const GgufFile> fromBuffer(std::vector<std::byte> bytes,
                                                      std::string sourceName = "<memory>");

    const std::string& source() const { return source_; } // the path (or buffer name) it was read from
    // Whether the file on disk changed since it was opened, so that anything read from it since
    // may be wrong (the mapping stays readable). Always false for a buffer.
    bool changedSinceOpened() const;
    std::uint32_t version() const { return version_; }
    std::size_t alignment() const { return alignment_; }
    std::uint64_t dataOffset() const { return dataOffset_; } // data section start in the file
    std::uint64_t fileSize() const { return bytes_.size(); }
    // Header, metadata and tensor table: everything before the data section.
    std::span<const std::byte> headerBytes() const {
        return bytes_.first(std::min<std::size_t>(dataOffset_, bytes_.size()));
    }

    bool hasKey(std::string_view key) const;
    std::vector<std::string_view> keys() const; // in file order
    std::optional<GgufValueType> valueType(std::string_view key) const;
    std::optional<GgufValueType> arrayElementType(std::string_view key) const; // arrays only
    std::optional<std::uint64_t> arrayLength(std::string_view key) const;      // arrays only

    // Typed getters return nullopt when the key is absent or holds another type.
    std::optional<std::string_view> getString(std::string_view key) const; // views into the map
    // Any integer type; nullopt also for a uint64 above the int64 range.
    std::optional<std::int64_t> getInteger(std::string_view key) const;
    std::optional<double> getFloat(std::string_view key) const; // float32 or float64
    std::optional<bool> getBool(std::string_view key) const;
    std::optional<std::vector<std::string_view>> getStringArray(std::string_view key) const;
    std::optional<std::vector<std::int64_t>> getIntegerArray(std::string_view key) const; // as getInteger
    std::optional<std::vector<float>> getFloatArray(std::string_view key) const; // float32 or float64

    const std::vector<GgufTensorInfo>& tensors() const { return tensors_; }
    const GgufTensorInfo* findTensor(std::string_view name) const;
    // The tensor's encoded bytes; empty for a tensor description that does not fit this file.
    std::span<const std::byte> tensorBytes(const GgufTensorInfo& tensor) const;

private:
    class Parser;

    GgufFile() = default;
    static std::shared_ptr<const GgufFile> parse(std::shared_ptr<const void> storage,
                                                 std::span<const std::byte> bytes, std::string source);

    struct MetadataEntry {
        std::string_view key;
        GgufValueType type = GgufValueType::UInt8;
        GgufValueType elementType = GgufValueType::UInt8; // arrays only
        std::uint64_t count = 0;                          // arrays only
        std::size_t valueOffset = 0; // the value's (or the first element's) position in the file
    };

    const MetadataEntry* find(std::string_view key) const;
    const MetadataEntry* findArray(std::string_view key) const;

    std::shared_ptr<const void> storage_; // keeps the mapping (or buffer) alive
    const MappedFile* mapping_ = nullptr; // the storage when it is a mapping
    std::span<const std::byte> bytes_;
    std::string source_;
    std::uint32_t version_ = 0;
    std::size_t alignment_ = 32;
    std::uint64_t dataOffset_ = 0;
    std::vector<MetadataEntry> metadata_;
    std::unordered_map<std::string_view, std::size_t> metadataIndex_;
    std::vector<GgufTensorInfo> tensors_;
    std::unordered_map<std::string_view, std::size_t> tensorIndex_;
};

} // namespace parlune::llm
