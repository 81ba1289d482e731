#include "core/modes/RewriteMode.h"

namespace parlune::rewrite_mode {

std::string_view rawValue(RewriteMode mode) {
    switch (mode) {
    case RewriteMode::improveClarity:
        return "Improve clarity";
    case RewriteMode::makeConcise:
        return "Make concise";
    case RewriteMode::professional:
        return "Professional";
    case RewriteMode::casual:
        return "Casual";
    case RewriteMode::improvePrompt:
        return "Improve prompt";
    }
    return {};
}

std::optional<RewriteMode> fromRawValue(std::string_view raw) {
    for (RewriteMode mode : allCases) {
        if (rawValue(mode) == raw) {
            return mode;
        }
    }
    return std::nullopt;
}

} // namespace parlune::rewrite_mode
