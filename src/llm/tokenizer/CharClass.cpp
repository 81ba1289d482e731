#include "llm/tokenizer/CharClass.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace parlune::llm {

namespace {

struct Range {
    char32_t first;
    char32_t last;
    CharClass kind;
};

constexpr Range kRanges[] = {
#include "llm/tokenizer/UnicodeRanges.inc"
};

constexpr std::array<Range, 10> kWhiteSpace{{
    {0x0009, 0x000D, CharClass::whitespace},
    {0x0020, 0x0020, CharClass::whitespace},
    {0x0085, 0x0085, CharClass::whitespace},
    {0x00A0, 0x00A0, CharClass::whitespace},
    {0x1680, 0x1680, CharClass::whitespace},
    {0x2000, 0x200A, CharClass::whitespace},
    {0x2028, 0x2029, CharClass::whitespace},
    {0x202F, 0x202F, CharClass::whitespace},
    {0x205F, 0x205F, CharClass::whitespace},
    {0x3000, 0x3000, CharClass::whitespace},
}};

CharClass lookup(const Range* begin, const Range* end, char32_t cp) {
    const Range* it =
        std::upper_bound(begin, end, cp, [](char32_t value, const Range& r) { return value < r.first; });
    if (it == begin)
        return CharClass::other;
    --it;
    return cp <= it->last ? it->kind : CharClass::other;
}

} // namespace

CharClass charClass(char32_t cp) {
    if (cp < 0x80) {
        if ((cp >= 'a' && cp <= 'z') || (cp >= 'A' && cp <= 'Z'))
            return CharClass::letter;
        if (cp >= '0' && cp <= '9')
            return CharClass::number;
        if (cp == ' ' || (cp >= 0x09 && cp <= 0x0D))
            return CharClass::whitespace;
        return CharClass::other;
    }
    const CharClass space = lookup(kWhiteSpace.data(), kWhiteSpace.data() + kWhiteSpace.size(), cp);
    if (space != CharClass::other)
        return space;
    return lookup(std::begin(kRanges), std::end(kRanges), cp);
}

} // namespace parlune::llm
