#include "core/selection/SelectionReplacementStrategy.h"

namespace parlune::selection_replacement_strategy {

std::string_view rawValue(SelectionReplacementStrategy strategy) {
    switch (strategy) {
    case SelectionReplacementStrategy::directAccessibility:
        return "directAccessibility";
    case SelectionReplacementStrategy::clipboardFallback:
        return "clipboardFallback";
    }
    return {};
}

std::optional<SelectionReplacementStrategy> fromRawValue(std::string_view raw) {
    for (auto strategy : {SelectionReplacementStrategy::directAccessibility,
                          SelectionReplacementStrategy::clipboardFallback}) {
        if (rawValue(strategy) == raw) {
            return strategy;
        }
    }
    return std::nullopt;
}

} // namespace parlune::selection_replacement_strategy
