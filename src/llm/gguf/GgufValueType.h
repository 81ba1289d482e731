#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace parlune::llm {

// Metadata value types by their ids in GGUF files.
enum class GgufValueType : std::uint32_t {
    UInt8 = 0,
    Int8 = 1,
    UInt16 = 2,
    Int16 = 3,
    UInt32 = 4,
    Int32 = 5,
    Float32 = 6,
    Bool = 7,
    String = 8,
    Array = 9,
    UInt64 = 10,
    Int64 = 11,
    Float64 = 12,
};

// The type for a raw id, or nullopt when the id is not a GGUF value type.
std::optional<GgufValueType> ggufValueTypeFromId(std::uint32_t id);

std::string_view ggufValueTypeName(GgufValueType type);

// Bytes one value occupies for the fixed-size types; nullopt for String and Array.
std::optional<std::size_t> ggufFixedValueSize(GgufValueType type);

bool isGgufIntegerType(GgufValueType type);

} // namespace parlune::llm
