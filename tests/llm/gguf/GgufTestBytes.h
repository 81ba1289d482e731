#pragma once

// Hand-assembled GGUF images, for files the writer refuses to produce.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <vector>

namespace parlune::llm::test {

class GgufTestBytes {
public:
    template <typename T> GgufTestBytes& put(T value) {
        const auto* raw = reinterpret_cast<const std::byte*>(&value);
        bytes.insert(bytes.end(), raw, raw + sizeof value);
        return *this;
    }
    GgufTestBytes& u8(std::uint8_t v) { return put(v); }
    GgufTestBytes& u32(std::uint32_t v) { return put(v); }
    GgufTestBytes& u64(std::uint64_t v) { return put(v); }
    GgufTestBytes& text(std::string_view s) {
        const auto* raw = reinterpret_cast<const std::byte*>(s.data());
        bytes.insert(bytes.end(), raw, raw + s.size());
        return *this;
    }
    GgufTestBytes& str(std::string_view s) { return u64(s.size()).text(s); }

    GgufTestBytes& header(std::uint64_t tensorCount, std::uint64_t kvCount, std::uint32_t version = 3) {
        return text("GGUF").u32(version).u64(tensorCount).u64(kvCount);
    }
    GgufTestBytes& kvU32(std::string_view key, std::uint32_t value) { return str(key).u32(4).u32(value); }
    GgufTestBytes& kvString(std::string_view key, std::string_view value) {
        return str(key).u32(8).str(value);
    }
    GgufTestBytes& tensorInfo(std::string_view name, std::initializer_list<std::uint64_t> dims,
                              std::uint32_t type, std::uint64_t offset) {
        str(name).u32(static_cast<std::uint32_t>(dims.size()));
        for (const std::uint64_t d : dims) {
            u64(d);
        }
        return u32(type).u64(offset);
    }
    GgufTestBytes& padTo(std::size_t alignment) {
        while (bytes.size() % alignment != 0) {
            bytes.push_back(std::byte{0});
        }
        return *this;
    }
    GgufTestBytes& zeros(std::size_t count) {
        bytes.resize(bytes.size() + count, std::byte{0});
        return *this;
    }

    std::vector<std::byte> bytes;
};

} // namespace parlune::llm::test
