#pragma once

#include "llm/runtime/DraftSource.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace parlune::llm {

// Guesses the next tokens by looking up the text's own last few tokens earlier in the text (the
// prompt and the answer so far) and proposing what followed there. A rewrite repeats long spans
// of its input, so these guesses are often right, and they cost no second model. The guess grows
// while guesses are taken whole and shrinks to what was taken when one falls short. Checking a
// guess is not free, so after guesses of which nothing was taken the next few steps guess
// nothing (one, two, four... up to sixteen steps while they keep failing).
class PromptLookupDraft : public DraftSource {
public:
    // Suffixes of `longestMatch` down to `shortestMatch` tokens are looked up, longest first.
    explicit PromptLookupDraft(std::size_t longestMatch = 3, std::size_t shortestMatch = 1,
                               std::int64_t firstLength = 4);

    std::vector<std::int32_t> propose(std::span<const std::int32_t> context, std::int64_t maxTokens) override;

    // How many tokens the next guess may hold at most (before the caller's own limit).
    std::int64_t length() const { return length_; }

private:
    // Adjusts the length to how much of the previous guess `context` went on with.
    void learnFrom(std::span<const std::int32_t> context);

    std::size_t longestMatch_;
    std::size_t shortestMatch_;
    std::int64_t firstLength_;
    std::int64_t length_;
    std::vector<std::int32_t> lastGuess_;
    std::size_t lastContextSize_ = 0;
    int failures_ = 0;        // guesses in a row of which nothing was taken
    std::int64_t paused_ = 0; // steps left without guessing
};

} // namespace parlune::llm
