#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace parlune::llm {

// Bounds-checked little-endian reads through a GGUF file's bytes. Every failure throws a
// GgufError that names the file, what was being read (the context: a metadata key, a tensor)
// and the byte offset, so the reader never touches a byte past the end.
class GgufCursor {
public:
    GgufCursor(std::span<const std::byte> bytes, std::string source);

    std::uint64_t position() const { return position_; }
    std::uint64_t size() const { return bytes_.size(); }
    std::uint64_t remaining() const { return bytes_.size() - position_; }

    // Prefix for error messages until changed, e.g. "metadata 'general.name'".
    void setContext(std::string context) { context_ = std::move(context); }

    [[noreturn]] void fail(std::string_view problem) const;

    std::uint8_t readU8(std::string_view what);
    std::uint32_t readU32(std::string_view what);
    std::uint64_t readU64(std::string_view what);
    // A u64 length followed by that many bytes.
    std::string_view readString(std::string_view what);
    std::span<const std::byte> readBytes(std::uint64_t count, std::string_view what);

private:
    void require(std::uint64_t count, std::string_view what) const;

    std::span<const std::byte> bytes_;
    std::string source_;
    std::string context_;
    std::uint64_t position_ = 0;
};

} // namespace parlune::llm
