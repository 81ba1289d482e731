#include "llm/model/GeluGate.h"

#include <cmath>

namespace parlune::llm {

// Built like swiGlu: fast-math and clones per instruction set, so tanh vectorises.
__attribute__((target_clones("avx512f", "avx2", "default"))) void geluGate(float* gate, const float* up,
                                                                           std::int64_t n) {
    constexpr float scale = 0.7978845608028654f; // sqrt(2 / pi)
    for (std::int64_t i = 0; i < n; ++i) {
        const float g = gate[i];
        gate[i] = 0.5f * g * (1.0f + std::tanh(scale * (g + 0.044715f * g * g * g))) * up[i];
    }
}

} // namespace parlune::llm
