#include "llm/tensor/Q8TokenChunk.h"

#include <cstring>

namespace parlune::llm::detail {

void prepareQ8TokenChunks(const std::int8_t* codes, const float* scales, std::int64_t paddedCols,
                          Q8TokenChunk* out) {
    for (std::int64_t c = 0; c < paddedCols / 64; ++c) {
        Q8TokenChunk& chunk = out[c];
        std::memcpy(chunk.x, codes + 64 * c, 64);
        for (int lane = 0; lane < 16; ++lane) {
            const float dx = scales[2 * c + lane / 8];
            std::int32_t sum = 0;
            for (int i = 0; i < 4; ++i)
                sum += chunk.x[4 * lane + i];
            chunk.dx[lane] = dx;
            chunk.bias[lane] = (dx * -128.0f) * static_cast<float>(sum);
        }
    }
}

} // namespace parlune::llm::detail
