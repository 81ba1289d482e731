#include "llm/gguf/GgufCursor.h"

#include "llm/gguf/GgufError.h"

#include <bit>
#include <cstring>

namespace parlune::llm {

static_assert(std::endian::native == std::endian::little, "GGUF reading assumes a little-endian host");

GgufCursor::GgufCursor(std::span<const std::byte> bytes, std::string source)
    : bytes_(bytes), source_(std::move(source)) {}

void GgufCursor::fail(std::string_view problem) const {
    std::string message = source_;
    message += ": ";
    if (!context_.empty()) {
        message += context_;
        message += ": ";
    }
    message += problem;
    throw GgufError(message);
}

void GgufCursor::require(std::uint64_t count, std::string_view what) const {
    if (count > remaining()) {
        fail(std::string(what) + " at byte " + std::to_string(position_) +
             " is cut off by the end of the file (" + std::to_string(size()) + " bytes)");
    }
}

std::uint8_t GgufCursor::readU8(std::string_view what) {
    require(1, what);
    return std::to_integer<std::uint8_t>(bytes_[position_++]);
}

std::uint32_t GgufCursor::readU32(std::string_view what) {
    require(4, what);
    std::uint32_t value = 0;
    std::memcpy(&value, bytes_.data() + position_, sizeof value);
    position_ += sizeof value;
    return value;
}

std::uint64_t GgufCursor::readU64(std::string_view what) {
    require(8, what);
    std::uint64_t value = 0;
    std::memcpy(&value, bytes_.data() + position_, sizeof value);
    position_ += sizeof value;
    return value;
}

std::string_view GgufCursor::readString(std::string_view what) {
    const std::uint64_t start = position_;
    const std::uint64_t length = readU64(what);
    if (length > remaining()) {
        fail(std::string(what) + " at byte " + std::to_string(start) + " claims " + std::to_string(length) +
             " bytes, but only " + std::to_string(remaining()) + " are left in the file (" +
             std::to_string(size()) + " bytes)");
    }
    const auto* text = reinterpret_cast<const char*>(bytes_.data() + position_);
    position_ += length;
    return {text, static_cast<std::size_t>(length)};
}

std::span<const std::byte> GgufCursor::readBytes(std::uint64_t count, std::string_view what) {
    require(count, what);
    const std::span<const std::byte> view = bytes_.subspan(position_, static_cast<std::size_t>(count));
    position_ += count;
    return view;
}

} // namespace parlune::llm
