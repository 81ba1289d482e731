#include "llm/gguf/GgufWriter.h"

#include "llm/gguf/GgufError.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <limits>
#include <stdexcept>

namespace parlune::llm {

namespace {

constexpr std::uint32_t kVersion = 3;
constexpr std::size_t kDefaultAlignment = 32;
constexpr std::uint32_t kMaxAlignment = std::uint32_t{1} << 30; // the most the reader accepts

template <typename T> void append(std::vector<std::byte>& out, T value) {
    const auto* raw = reinterpret_cast<const std::byte*>(&value);
    out.insert(out.end(), raw, raw + sizeof value);
}

void appendString(std::vector<std::byte>& out, std::string_view text) {
    append<std::uint64_t>(out, text.size());
    const auto* raw = reinterpret_cast<const std::byte*>(text.data());
    out.insert(out.end(), raw, raw + text.size());
}

void appendType(std::vector<std::byte>& out, GgufValueType type) {
    append<std::uint32_t>(out, static_cast<std::uint32_t>(type));
}

std::size_t paddingFor(std::size_t size, std::size_t alignment) {
    return (alignment - size % alignment) % alignment;
}

} // namespace

void GgufWriter::set(std::string key, std::vector<std::byte> encoded) {
    if (key.empty()) {
        throw std::invalid_argument("GGUF metadata keys must not be empty");
    }
    for (Entry& entry : entries_) {
        if (entry.key == key) {
            entry.encoded = std::move(encoded);
            return;
        }
    }
    entries_.push_back({std::move(key), std::move(encoded)});
}

template <typename T> void GgufWriter::setScalar(std::string key, GgufValueType type, T value) {
    std::vector<std::byte> encoded;
    appendType(encoded, type);
    append(encoded, value);
    set(std::move(key), std::move(encoded));
}

template <typename T>
void GgufWriter::setArray(std::string key, GgufValueType elementType, const std::vector<T>& values) {
    std::vector<std::byte> encoded;
    appendType(encoded, GgufValueType::Array);
    appendType(encoded, elementType);
    append<std::uint64_t>(encoded, values.size());
    for (const T& value : values) {
        append(encoded, value);
    }
    set(std::move(key), std::move(encoded));
}

void GgufWriter::setUInt8(std::string key, std::uint8_t value) {
    setScalar(std::move(key), GgufValueType::UInt8, value);
}
void GgufWriter::setInt8(std::string key, std::int8_t value) {
    setScalar(std::move(key), GgufValueType::Int8, value);
}
void GgufWriter::setUInt16(std::string key, std::uint16_t value) {
    setScalar(std::move(key), GgufValueType::UInt16, value);
}
void GgufWriter::setInt16(std::string key, std::int16_t value) {
    setScalar(std::move(key), GgufValueType::Int16, value);
}
void GgufWriter::setUInt32(std::string key, std::uint32_t value) {
    setScalar(std::move(key), GgufValueType::UInt32, value);
}
void GgufWriter::setInt32(std::string key, std::int32_t value) {
    setScalar(std::move(key), GgufValueType::Int32, value);
}
void GgufWriter::setUInt64(std::string key, std::uint64_t value) {
    setScalar(std::move(key), GgufValueType::UInt64, value);
}
void GgufWriter::setInt64(std::string key, std::int64_t value) {
    setScalar(std::move(key), GgufValueType::Int64, value);
}
void GgufWriter::setFloat32(std::string key, float value) {
    setScalar(std::move(key), GgufValueType::Float32, value);
}
void GgufWriter::setFloat64(std::string key, double value) {
    setScalar(std::move(key), GgufValueType::Float64, value);
}
void GgufWriter::setBool(std::string key, bool value) {
    setScalar(std::move(key), GgufValueType::Bool, static_cast<std::uint8_t>(value ? 1 : 0));
}

void GgufWriter::setString(std::string key, std::string_view value) {
    std::vector<std::byte> encoded;
    appendType(encoded, GgufValueType::String);
    appendString(encoded, value);
    set(std::move(key), std::move(encoded));
}

void GgufWriter::setStringArray(std::string key, const std::vector<std::string>& values) {
    std::vector<std::byte> encoded;
    appendType(encoded, GgufValueType::Array);
    appendType(encoded, GgufValueType::String);
    append<std::uint64_t>(encoded, values.size());
    for (const std::string& value : values) {
        appendString(encoded, value);
    }
    set(std::move(key), std::move(encoded));
}

void GgufWriter::setInt32Array(std::string key, const std::vector<std::int32_t>& values) {
    setArray(std::move(key), GgufValueType::Int32, values);
}
void GgufWriter::setUInt32Array(std::string key, const std::vector<std::uint32_t>& values) {
    setArray(std::move(key), GgufValueType::UInt32, values);
}
void GgufWriter::setInt64Array(std::string key, const std::vector<std::int64_t>& values) {
    setArray(std::move(key), GgufValueType::Int64, values);
}
void GgufWriter::setFloat32Array(std::string key, const std::vector<float>& values) {
    setArray(std::move(key), GgufValueType::Float32, values);
}
void GgufWriter::setBoolArray(std::string key, const std::vector<bool>& values) {
    std::vector<std::uint8_t> bytes(values.begin(), values.end());
    setArray(std::move(key), GgufValueType::Bool, bytes);
}

void GgufWriter::addTensor(std::string name, std::vector<std::int64_t> dims, GgmlType type,
                           std::vector<std::byte> data) {
    if (name.empty()) {
        throw std::invalid_argument("GGUF tensor names must not be empty");
    }
    for (const Tensor& tensor : tensors_) {
        if (tensor.name == name) {
            throw std::invalid_argument("tensor '" + name + "' is added twice");
        }
    }
    if (dims.empty() || dims.size() > 4) {
        throw std::invalid_argument("tensor '" + name + "' needs 1 to 4 dimensions");
    }
    std::int64_t rows = 1;
    for (std::size_t i = 0; i < dims.size(); ++i) {
        if (dims[i] <= 0 || (i > 0 && __builtin_mul_overflow(rows, dims[i], &rows))) {
            throw std::invalid_argument("tensor '" + name + "' has an invalid shape");
        }
    }
    const std::optional<std::size_t> rowBytes = ggmlRowBytes(type, dims[0]);
    std::size_t expected = 0;
    if (!rowBytes || __builtin_mul_overflow(*rowBytes, static_cast<std::size_t>(rows), &expected)) {
        throw std::invalid_argument("tensor '" + name + "': row length " + std::to_string(dims[0]) +
                                    " does not fit the blocks of " + std::string(ggmlTypeTraits(type).name));
    }
    if (data.size() != expected) {
        throw std::invalid_argument("tensor '" + name + "' has " + std::to_string(data.size()) +
                                    " bytes of data; its shape and type need " + std::to_string(expected));
    }
    tensors_.push_back({std::move(name), std::move(dims), type, std::move(data)});
}

std::size_t GgufWriter::alignment() const {
    for (const Entry& entry : entries_) {
        if (entry.key != "general.alignment") {
            continue;
        }
        std::uint32_t typeId = 0;
        std::uint32_t value = 0;
        std::memcpy(&typeId, entry.encoded.data(), sizeof typeId);
        if (typeId == static_cast<std::uint32_t>(GgufValueType::UInt32)) {
            std::memcpy(&value, entry.encoded.data() + sizeof typeId, sizeof value);
        }
        if (value == 0 || (value & (value - 1)) != 0 || value > kMaxAlignment) {
            throw std::invalid_argument("general.alignment must be a uint32 power of two up to 2^30");
        }
        return value;
    }
    return kDefaultAlignment;
}

std::vector<std::byte> GgufWriter::header() const {
    const std::size_t align = alignment();
    std::vector<std::byte> out;
    for (const char c : {'G', 'G', 'U', 'F'}) {
        out.push_back(static_cast<std::byte>(c));
    }
    append<std::uint32_t>(out, kVersion);
    append<std::uint64_t>(out, tensors_.size());
    append<std::uint64_t>(out, entries_.size());
    for (const Entry& entry : entries_) {
        appendString(out, entry.key);
        out.insert(out.end(), entry.encoded.begin(), entry.encoded.end());
    }
    std::uint64_t offset = 0;
    for (const Tensor& tensor : tensors_) {
        appendString(out, tensor.name);
        append<std::uint32_t>(out, static_cast<std::uint32_t>(tensor.dims.size()));
        for (const std::int64_t dim : tensor.dims) {
            append<std::uint64_t>(out, static_cast<std::uint64_t>(dim));
        }
        append<std::uint32_t>(out, static_cast<std::uint32_t>(tensor.type));
        append<std::uint64_t>(out, offset);
        offset += tensor.data.size() + paddingFor(tensor.data.size(), align);
    }
    if (!tensors_.empty()) {
        out.resize(out.size() + paddingFor(out.size(), align), std::byte{0});
    }
    return out;
}

std::vector<std::byte> GgufWriter::toBytes() const {
    const std::size_t align = alignment();
    std::vector<std::byte> out = header();
    for (const Tensor& tensor : tensors_) {
        out.insert(out.end(), tensor.data.begin(), tensor.data.end());
        out.resize(out.size() + paddingFor(tensor.data.size(), align), std::byte{0});
    }
    return out;
}

void GgufWriter::write(const std::filesystem::path& path) const {
    const std::size_t align = alignment();
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) {
        throw GgufError(path.string() + ": cannot create the file: " + std::strerror(errno));
    }
    const auto put = [&file](const std::byte* data, std::size_t size) {
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    };
    const std::vector<std::byte> head = header();
    put(head.data(), head.size());
    const std::byte zeros[64] = {};
    for (const Tensor& tensor : tensors_) {
        put(tensor.data.data(), tensor.data.size());
        for (std::size_t padding = paddingFor(tensor.data.size(), align); padding > 0;) {
            const std::size_t chunk = std::min(padding, sizeof zeros);
            put(zeros, chunk);
            padding -= chunk;
        }
    }
    file.flush();
    if (!file) {
        throw GgufError(path.string() + ": cannot write the file");
    }
}

} // namespace parlune::llm
