#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace parlune::llm {

// Tensor element types by their numeric ids in GGUF files. Only the ids are fixed by the format;
// which ones we can compute with is `isSupportedWeightType`.
enum class GgmlType : std::uint32_t {
    F32 = 0,
    F16 = 1,
    Q4_0 = 2,
    Q4_1 = 3,
    Q5_0 = 6,
    Q5_1 = 7,
    Q8_0 = 8,
    Q8_1 = 9,
    Q2_K = 10,
    Q3_K = 11,
    Q4_K = 12,
    Q5_K = 13,
    Q6_K = 14,
    Q8_K = 15,
    IQ2_XXS = 16,
    IQ2_XS = 17,
    IQ3_XXS = 18,
    IQ1_S = 19,
    IQ4_NL = 20,
    IQ3_S = 21,
    IQ2_S = 22,
    IQ4_XS = 23,
    I8 = 24,
    I16 = 25,
    I32 = 26,
    I64 = 27,
    F64 = 28,
    IQ1_M = 29,
    BF16 = 30,
    TQ1_0 = 34,
    TQ2_0 = 35,
};

struct GgmlTypeTraits {
    std::string_view name;
    std::int64_t blockElements; // elements per block (1 for plain floats)
    std::size_t blockBytes;     // bytes per block
};

// Traits of a known type id; nullopt for ids this engine does not know at all.
std::optional<GgmlTypeTraits> ggmlTypeTraits(std::uint32_t typeId);
GgmlTypeTraits ggmlTypeTraits(GgmlType type);

// Types a model's weights may have and still be loaded.
bool isSupportedWeightType(GgmlType type);

// Bytes taken by a row of `elements` values; nullopt when `elements` is not a whole number of
// blocks or the size overflows.
std::optional<std::size_t> ggmlRowBytes(GgmlType type, std::int64_t elements);

} // namespace parlune::llm
