#pragma once

#include <cstdint>

namespace parlune::llm {

// The character classes the pre-tokenizers' rules are written in: Unicode general categories
// L* and N*, the White_Space property, and everything else (marks, punctuation, symbols,
// controls, malformed bytes).
enum class CharClass : std::uint8_t { other, letter, number, whitespace };

CharClass charClass(char32_t codePoint);

} // namespace parlune::llm
