#pragma once

#include <cstddef>

namespace parlune::llm {

// Byte offsets [begin, end) into a text.
struct TextRange {
    std::size_t begin;
    std::size_t end;
};

} // namespace parlune::llm
