#include "llm/tensor/KQuantToken.h"

#include <cstring>

namespace parlune::llm::detail {

namespace {

float codeSum(const std::int8_t* codes, int n) {
    std::int32_t sum = 0;
    for (int i = 0; i < n; ++i)
        sum += codes[i];
    return static_cast<float>(sum);
}

void prepareQ4K(const std::int8_t* c, const float* dx, KQuantToken& t) {
    for (int i = 0; i < 8; ++i) {
        std::memcpy(t.x + 32 * q4kSlot(i), c + 32 * i, 32);
        t.a[i] = dx[i];
        t.a[8 + i] = dx[i] * codeSum(c + 32 * i, 32);
        t.b[i] = t.b[8 + i] = 0.0f;
    }
}

void prepareQ6K(const std::int8_t* c, const float* dx, KQuantToken& t) {
    std::memcpy(t.x, c, 256);
    for (int g = 0; g < 16; ++g) {
        t.a[g] = dx[g / 2];
        t.b[g] = -32.0f * codeSum(c + 16 * g, 16);
    }
}

} // namespace

void prepareKQuantTokens(GgmlType weightType, const std::int8_t* codes, const float* scales,
                         std::int64_t cols, KQuantToken* out) {
    for (std::int64_t s = 0; s < cols / 256; ++s) {
        KQuantToken& t = out[s];
        if (weightType == GgmlType::Q4_K) {
            prepareQ4K(codes + 256 * s, scales + 8 * s, t);
        } else {
            prepareQ6K(codes + 256 * s, scales + 8 * s, t);
        }
    }
}

} // namespace parlune::llm::detail
