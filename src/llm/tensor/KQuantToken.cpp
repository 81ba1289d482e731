#include "llm/tensor/KQuantToken.h"

#include <cstring>

namespace parlune::llm::detail {

namespace {

std::int16_t codeSum(const std::int8_t* codes, int n) {
    int sum = 0;
    for (int i = 0; i < n; ++i)
        sum += codes[i];
    return static_cast<std::int16_t>(sum); // at most 32 * 127 in magnitude
}

} // namespace

void prepareKQuantTokens(GgmlType weightType, const std::int8_t* codes, const float* scales,
                         std::int64_t cols, KQuantToken* out) {
    for (std::int64_t s = 0; s < cols / 256; ++s) {
        KQuantToken& t = out[s];
        const std::int8_t* c = codes + 256 * s;
        t.dx = scales[8 * s];
        if (weightType == GgmlType::Q4_K) {
            for (int i = 0; i < 8; ++i) {
                std::memcpy(t.x + 32 * q4kSlot(i), c + 32 * i, 32);
                t.sums[i] = codeSum(c + 32 * i, 32);
                t.sums[8 + i] = 0;
            }
        } else {
            std::memcpy(t.x, c, 256);
            for (int g = 0; g < 16; ++g)
                t.sums[g] = codeSum(c + 16 * g, 16);
        }
    }
}

} // namespace parlune::llm::detail
