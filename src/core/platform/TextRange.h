#pragma once

#include <cstdint>

namespace parlune {

// A range in another application's text, in UTF-16 code units, as accessibility reports it.
struct TextRange {
    std::int64_t location = 0;
    std::int64_t length = 0;

    friend bool operator==(const TextRange&, const TextRange&) = default;
};

} // namespace parlune
