#include "llm/gguf/GgufValueType.h"

namespace parlune::llm {

std::optional<GgufValueType> ggufValueTypeFromId(std::uint32_t id) {
    if (id > static_cast<std::uint32_t>(GgufValueType::Float64)) {
        return std::nullopt;
    }
    return static_cast<GgufValueType>(id);
}

std::string_view ggufValueTypeName(GgufValueType type) {
    switch (type) {
    case GgufValueType::UInt8:
        return "uint8";
    case GgufValueType::Int8:
        return "int8";
    case GgufValueType::UInt16:
        return "uint16";
    case GgufValueType::Int16:
        return "int16";
    case GgufValueType::UInt32:
        return "uint32";
    case GgufValueType::Int32:
        return "int32";
    case GgufValueType::Float32:
        return "float32";
    case GgufValueType::Bool:
        return "bool";
    case GgufValueType::String:
        return "string";
    case GgufValueType::Array:
        return "array";
    case GgufValueType::UInt64:
        return "uint64";
    case GgufValueType::Int64:
        return "int64";
    case GgufValueType::Float64:
        return "float64";
    }
    return "invalid";
}

std::optional<std::size_t> ggufFixedValueSize(GgufValueType type) {
    switch (type) {
    case GgufValueType::UInt8:
    case GgufValueType::Int8:
    case GgufValueType::Bool:
        return 1;
    case GgufValueType::UInt16:
    case GgufValueType::Int16:
        return 2;
    case GgufValueType::UInt32:
    case GgufValueType::Int32:
    case GgufValueType::Float32:
        return 4;
    case GgufValueType::UInt64:
    case GgufValueType::Int64:
    case GgufValueType::Float64:
        return 8;
    case GgufValueType::String:
    case GgufValueType::Array:
        return std::nullopt;
    }
    return std::nullopt;
}

bool isGgufIntegerType(GgufValueType type) {
    switch (type) {
    case GgufValueType::UInt8:
    case GgufValueType::Int8:
    case GgufValueType::UInt16:
    case GgufValueType::Int16:
    case GgufValueType::UInt32:
    case GgufValueType::Int32:
    case GgufValueType::UInt64:
    case GgufValueType::Int64:
        return true;
    default:
        return false;
    }
}

} // namespace parlune::llm
