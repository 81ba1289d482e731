#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace parlune::llm {

// Guesses the tokens that follow a text (a smaller model, a lookup in the prompt). The
// generation loop runs a guess through the model in one batch and keeps the tokens it would
// have chosen one by one anyway, so the output never changes, only the number of steps.
class DraftSource {
public:
    virtual ~DraftSource() = default;

    // Up to `maxTokens` tokens guessed to follow `context` (the prompt and every token chosen
    // so far); fewer or none when unsure.
    virtual std::vector<std::int32_t> propose(std::span<const std::int32_t> context,
                                              std::int64_t maxTokens) = 0;
};

} // namespace parlune::llm
