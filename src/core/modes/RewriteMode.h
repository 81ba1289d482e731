#pragma once

#include <array>
#include <optional>
#include <string_view>

namespace parlune {

// The rewrite modes, in the order every menu and picker shows them. The raw value is also the
// title shown to the user, and the only string a mode is ever constructed from.
enum class RewriteMode {
    improveClarity,
    makeConcise,
    professional,
    casual,
    improvePrompt,
};

namespace rewrite_mode {

inline constexpr std::array<RewriteMode, 5> allCases{
    RewriteMode::improveClarity, RewriteMode::makeConcise,   RewriteMode::professional,
    RewriteMode::casual,         RewriteMode::improvePrompt,
};

inline constexpr RewriteMode defaultMode = RewriteMode::improveClarity;

// The raw value, which doubles as the title and the identifier.
std::string_view rawValue(RewriteMode mode);

// Exact, case-sensitive match of a title; anything else is no mode.
std::optional<RewriteMode> fromRawValue(std::string_view raw);

} // namespace rewrite_mode
} // namespace parlune
