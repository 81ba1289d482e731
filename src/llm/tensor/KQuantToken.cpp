#include "llm/tensor/KQuantToken.h"

#include <cstring>
#include <vector>

namespace parlune::llm::detail {

namespace {

float codeSum(const std::int8_t* codes, int n) {
    std::int32_t sum = 0;
    for (int i = 0; i < n; ++i)
        sum += codes[i];
    return static_cast<float>(sum);
}

void prepareQ4K(const std::int8_t* c, const float* dx, bool fourSubBlocksPerLoad, KQuantToken& t) {
    for (int i = 0; i < 8; ++i) {
        const int slot = fourSubBlocksPerLoad ? 4 * (i / 4) + 2 * (i % 2) + (i % 4) / 2 : i;
        std::memcpy(t.x + 32 * slot, c + 32 * i, 32);
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

void oneTokenKQuantProduct(const OneTokenKQuantKernels& kernels, const WeightMatrix& w,
                           const ActivationBuffer& x, std::int64_t rowBegin, std::int64_t rowEnd, float* y) {
    thread_local std::vector<KQuantToken> token;
    const std::int64_t blocks = w.cols / 256;
    token.resize(static_cast<std::size_t>(blocks));
    const bool q4k = w.type == GgmlType::Q4_K;
    for (std::int64_t s = 0; s < blocks; ++s) {
        const std::int8_t* codes = x.codes(0) + 256 * s;
        const float* dx = x.blockScales(0) + 8 * s;
        KQuantToken& t = token[static_cast<std::size_t>(s)];
        if (q4k) {
            prepareQ4K(codes, dx, kernels.q4kFourSubBlocksPerLoad, t);
        } else {
            prepareQ6K(codes, dx, t);
        }
    }
    const KQuantRow row = q4k ? kernels.q4k : kernels.q6k;
    const auto* base = static_cast<const std::uint8_t*>(w.data);
    for (std::int64_t r = rowBegin; r < rowEnd; ++r) {
        y[r] = row(base + static_cast<std::size_t>(r) * w.rowBytes, blocks, token.data());
    }
}

} // namespace parlune::llm::detail
