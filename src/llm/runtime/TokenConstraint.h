#pragma once

#include <cstdint>
#include <span>

namespace parlune::llm {

// Chooses each generated token in place of plain greedy decoding, e.g. to keep the output
// inside a grammar. The generation loop asks before every token and reports the token taken.
class TokenConstraint {
public:
    virtual ~TokenConstraint() = default;

    // The token to generate from these logits, with `remainingTokens` (this one included) left
    // before the limit; -1 when no token is acceptable.
    virtual std::int32_t bestToken(std::span<const float> logits, std::int64_t remainingTokens) const = 0;
    virtual void accept(std::int32_t token) = 0;
    // Generation ends once the constraint is satisfied.
    virtual bool isComplete() const = 0;
};

} // namespace parlune::llm
