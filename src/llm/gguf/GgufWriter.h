#pragma once

#include "llm/gguf/GgufValueType.h"
#include "llm/tensor/GgmlType.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

namespace parlune::llm {

// Builds a GGUF v3 file: metadata in the order first set (setting a key again replaces its value
// in place), then the tensor table and the tensors' already-encoded bytes, each aligned to
// `general.alignment` (32 unless set as a uint32 power of two). Misuse (a bad shape, a data size
// that does not match the shape, a duplicate tensor, a bad alignment) throws std::invalid_argument.
class GgufWriter {
public:
    void setUInt8(std::string key, std::uint8_t value);
    void setInt8(std::string key, std::int8_t value);
    void setUInt16(std::string key, std::uint16_t value);
    void setInt16(std::string key, std::int16_t value);
    void setUInt32(std::string key, std::uint32_t value);
    void setInt32(std::string key, std::int32_t value);
    void setUInt64(std::string key, std::uint64_t value);
    void setInt64(std::string key, std::int64_t value);
    void setFloat32(std::string key, float value);
    void setFloat64(std::string key, double value);
    void setBool(std::string key, bool value);
    void setString(std::string key, std::string_view value);

    void setStringArray(std::string key, const std::vector<std::string>& values);
    void setInt32Array(std::string key, const std::vector<std::int32_t>& values);
    void setUInt32Array(std::string key, const std::vector<std::uint32_t>& values);
    void setInt64Array(std::string key, const std::vector<std::int64_t>& values);
    void setFloat32Array(std::string key, const std::vector<float>& values);
    void setBoolArray(std::string key, const std::vector<bool>& values);

    void addTensor(std::string name, std::vector<std::int64_t> dims, GgmlType type,
                   std::vector<std::byte> data);

    std::size_t alignment() const;
    std::vector<std::byte> toBytes() const;
    void write(const std::filesystem::path& path) const; // throws GgufError when writing fails

private:
    struct Entry {
        std::string key;
        std::vector<std::byte> encoded; // value type id followed by the value
    };
    struct Tensor {
        std::string name;
        std::vector<std::int64_t> dims;
        GgmlType type;
        std::vector<std::byte> data;
    };

    void set(std::string key, std::vector<std::byte> encoded);
    template <typename T> void setScalar(std::string key, GgufValueType type, T value);
    template <typename T>
    void setArray(std::string key, GgufValueType elementType, const std::vector<T>& values);

    std::vector<std::byte> header() const; // everything before the data section, padded

    std::vector<Entry> entries_;
    std::vector<Tensor> tensors_;
};

} // namespace parlune::llm
