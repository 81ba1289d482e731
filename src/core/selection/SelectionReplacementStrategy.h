#pragma once

#include <optional>
#include <string_view>

namespace parlune {

// How a captured selection gets its replacement, fixed at capture.
enum class SelectionReplacementStrategy {
    directAccessibility, // written through accessibility as the element's selected text
    clipboardFallback,   // pasted with a synthetic command-V, the pasteboard restored afterwards
};

namespace selection_replacement_strategy {
std::string_view rawValue(SelectionReplacementStrategy strategy);
std::optional<SelectionReplacementStrategy> fromRawValue(std::string_view raw);
} // namespace selection_replacement_strategy

} // namespace parlune
