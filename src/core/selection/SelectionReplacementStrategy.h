#pragma once

namespace parlune {

// How a captured selection gets its replacement, fixed at capture.
enum class SelectionReplacementStrategy {
    directAccessibility, // written through accessibility as the element's selected text
    clipboardFallback,   // pasted with a synthetic command-V, the pasteboard restored afterwards
};

} // namespace parlune
