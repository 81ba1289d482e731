#include "llm/tensor/GgmlType.h"

#include <limits>

namespace parlune::llm {

namespace {
struct Entry {
    GgmlType type;
    GgmlTypeTraits traits;
};

constexpr Entry kTypes[] = {
    {GgmlType::F32, {"F32", 1, 4}},
    {GgmlType::F16, {"F16", 1, 2}},
    {GgmlType::BF16, {"BF16", 1, 2}},
    {GgmlType::Q4_0, {"Q4_0", 32, 18}},
    {GgmlType::Q4_1, {"Q4_1", 32, 20}},
    {GgmlType::Q5_0, {"Q5_0", 32, 22}},
    {GgmlType::Q5_1, {"Q5_1", 32, 24}},
    {GgmlType::Q8_0, {"Q8_0", 32, 34}},
    {GgmlType::Q8_1, {"Q8_1", 32, 36}},
    {GgmlType::Q2_K, {"Q2_K", 256, 84}},
    {GgmlType::Q3_K, {"Q3_K", 256, 110}},
    {GgmlType::Q4_K, {"Q4_K", 256, 144}},
    {GgmlType::Q5_K, {"Q5_K", 256, 176}},
    {GgmlType::Q6_K, {"Q6_K", 256, 210}},
    {GgmlType::Q8_K, {"Q8_K", 256, 292}},
    {GgmlType::IQ4_NL, {"IQ4_NL", 32, 18}},
    {GgmlType::IQ4_XS, {"IQ4_XS", 256, 136}},
    // Known so that files holding them are refused by name; not computed with.
    {GgmlType::IQ2_XXS, {"IQ2_XXS", 256, 66}},
    {GgmlType::IQ2_XS, {"IQ2_XS", 256, 74}},
    {GgmlType::IQ3_XXS, {"IQ3_XXS", 256, 98}},
    {GgmlType::IQ1_S, {"IQ1_S", 256, 50}},
    {GgmlType::IQ3_S, {"IQ3_S", 256, 110}},
    {GgmlType::IQ2_S, {"IQ2_S", 256, 82}},
    {GgmlType::IQ1_M, {"IQ1_M", 256, 56}},
    {GgmlType::TQ1_0, {"TQ1_0", 256, 54}},
    {GgmlType::TQ2_0, {"TQ2_0", 256, 66}},
    {GgmlType::I8, {"I8", 1, 1}},
    {GgmlType::I16, {"I16", 1, 2}},
    {GgmlType::I32, {"I32", 1, 4}},
    {GgmlType::I64, {"I64", 1, 8}},
    {GgmlType::F64, {"F64", 1, 8}},
};
} // namespace

std::optional<GgmlTypeTraits> ggmlTypeTraits(std::uint32_t typeId) {
    for (const Entry& entry : kTypes) {
        if (static_cast<std::uint32_t>(entry.type) == typeId) {
            return entry.traits;
        }
    }
    return std::nullopt;
}

GgmlTypeTraits ggmlTypeTraits(GgmlType type) {
    return *ggmlTypeTraits(static_cast<std::uint32_t>(type));
}

bool isSupportedWeightType(GgmlType type) {
    switch (type) {
    case GgmlType::F32:
    case GgmlType::F16:
    case GgmlType::BF16:
    case GgmlType::Q4_0:
    case GgmlType::Q4_1:
    case GgmlType::Q5_0:
    case GgmlType::Q5_1:
    case GgmlType::Q8_0:
    case GgmlType::Q2_K:
    case GgmlType::Q3_K:
    case GgmlType::Q4_K:
    case GgmlType::Q5_K:
    case GgmlType::Q6_K:
    case GgmlType::IQ4_NL:
    case GgmlType::IQ4_XS:
        return true;
    default:
        return false;
    }
}

std::optional<std::size_t> ggmlRowBytes(GgmlType type, std::int64_t elements) {
    const GgmlTypeTraits traits = ggmlTypeTraits(type);
    if (elements < 0 || elements % traits.blockElements != 0) {
        return std::nullopt;
    }
    const auto blocks = static_cast<std::uint64_t>(elements / traits.blockElements);
    if (blocks > std::numeric_limits<std::size_t>::max() / traits.blockBytes) {
        return std::nullopt;
    }
    return static_cast<std::size_t>(blocks) * traits.blockBytes;
}

} // namespace parlune::llm
