#include "llm/runtime/PromptLookupDraft.h"

#include <algorithm>
#include <stdexcept>

namespace parlune::llm {

namespace {

// Longest a guess grows: a batch this long still costs about one step on memory-bound models.
constexpr std::int64_t kLongestGuess = 16;
constexpr std::int64_t kLongestPause = 16;

} // namespace

PromptLookupDraft::PromptLookupDraft(std::size_t longestMatch, std::size_t shortestMatch,
                                     std::int64_t firstLength)
    : longestMatch_(longestMatch), shortestMatch_(shortestMatch), firstLength_(firstLength),
      length_(firstLength) {
    if (shortestMatch == 0 || longestMatch < shortestMatch || firstLength <= 0) {
        throw std::invalid_argument("prompt lookup: matches need at least one token, guesses at least one");
    }
}

void PromptLookupDraft::learnFrom(std::span<const std::int32_t> context) {
    if (context.size() < lastContextSize_) {
        // Another text: what was learnt about the last one says nothing about this one.
        length_ = firstLength_;
        lastGuess_.clear();
        failures_ = 0;
        paused_ = 0;
    }
    if (lastGuess_.empty()) {
        return;
    }
    const auto followed = context.subspan(lastContextSize_);
    const auto taken = static_cast<std::int64_t>(
        std::mismatch(lastGuess_.begin(), lastGuess_.end(), followed.begin(), followed.end()).first -
        lastGuess_.begin());
    const auto guessed = static_cast<std::int64_t>(lastGuess_.size());
    length_ = taken == guessed ? std::min(kLongestGuess, std::max(length_, guessed) + 2) : taken + 1;
    failures_ = taken == 0 ? failures_ + 1 : 0;
    if (failures_ > 0)
        paused_ = std::min(kLongestPause, std::int64_t{1} << (failures_ - 1));
    lastGuess_.clear();
}

std::vector<std::int32_t> PromptLookupDraft::propose(std::span<const std::int32_t> context,
                                                     std::int64_t maxTokens) {
    learnFrom(context);
    lastContextSize_ = context.size();
    if (paused_ > 0) {
        --paused_;
        return {};
    }
    const auto most = static_cast<std::size_t>(std::min(maxTokens, length_));
    if (most == 0 || context.size() < shortestMatch_ + 1) {
        return {};
    }
    const std::size_t size = context.size();
    for (std::size_t n = std::min(longestMatch_, size - 1); n >= shortestMatch_; --n) {
        const auto suffix = context.last(n);
        // The latest earlier occurrence: the nearest text is the likeliest to go on the same way.
        for (std::size_t i = size - n; i-- > 0;) {
            if (std::equal(suffix.begin(), suffix.end(), context.begin() + static_cast<std::ptrdiff_t>(i))) {
                const std::size_t from = i + n;
                const std::size_t to = std::min(size, from + most);
                lastGuess_.assign(context.begin() + static_cast<std::ptrdiff_t>(from),
                                  context.begin() + static_cast<std::ptrdiff_t>(to));
                return lastGuess_;
            }
        }
    }
    return {};
}

} // namespace parlune::llm
