#pragma once

#include <cstdint>

namespace parlune::llm {

// gate[i] = gelu(gate[i]) * up[i] with GELU's tanh approximation (Gemma's feed-forward gate).
void geluGate(float* gate, const float* up, std::int64_t n);

} // namespace parlune::llm
