#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace parlune {

// Text that came from a file or a setting, made safe to print to a terminal or show in a label:
// control characters (C0, DEL, C1; so no escape sequence reaches a terminal) and bytes that
// are not UTF-8 become \xNN, and anything past `maxBytes` of the input is cut off with "...".
std::string printableText(std::string_view text, std::size_t maxBytes = 256);

} // namespace parlune
