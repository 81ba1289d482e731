#pragma once

#include <cstdint>

namespace parlune::llm {

// gate[i] = silu(gate[i]) * up[i], the gated activation of the feed-forward block.
void swiGlu(float* gate, const float* up, std::int64_t n);

} // namespace parlune::llm
