#include "llm/model/SwiGlu.h"

#include <cmath>

namespace parlune::llm {

// Built with fast-math so the exponential vectorises through the C library's vector math
// functions (a few ulp, far below what the logits can show); the clones pick the widest
// instruction set the processor has at run time.
__attribute__((target_clones("avx512f", "avx2", "default"))) void swiGlu(float* gate, const float* up,
                                                                         std::int64_t n) {
    for (std::int64_t i = 0; i < n; ++i) {
        const float g = gate[i];
        gate[i] = g / (1.0f + std::exp(-g)) * up[i];
    }
}

} // namespace parlune::llm
