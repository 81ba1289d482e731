#pragma once

// Shared helpers for the kernel tests: reproducible data, encoded matrices, error measures.

#include "llm/tensor/GgmlType.h"
#include "llm/tensor/Quantization.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace parlune::llm::testing {

inline std::vector<float> gaussian(std::size_t n, std::uint32_t seed, float sigma = 1.0f) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> dist(0.0f, sigma);
    std::vector<float> v(n);
    for (float& x : v)
        x = dist(rng);
    return v;
}

// Normalised mean squared error of `got` against `want`.
inline double nmse(const float* want, const float* got, std::size_t n) {
    double err = 0, ref = 0;
    for (std::size_t i = 0; i < n; ++i) {
        err += (static_cast<double>(got[i]) - want[i]) * (static_cast<double>(got[i]) - want[i]);
        ref += static_cast<double>(want[i]) * want[i];
    }
    return ref > 0 ? err / ref : err;
}

struct EncodedMatrix {
    GgmlType type;
    std::int64_t rows = 0;
    std::int64_t cols = 0;
    std::size_t rowBytes = 0;
    std::vector<std::uint8_t> bytes;
};

inline EncodedMatrix encode(GgmlType type, const std::vector<float>& values, std::int64_t rows,
                            std::int64_t cols) {
    EncodedMatrix m{type, rows, cols, *ggmlRowBytes(type, cols), {}};
    m.bytes.resize(m.rowBytes * static_cast<std::size_t>(rows));
    for (std::int64_t r = 0; r < rows; ++r) {
        quantizeRow(type, values.data() + r * cols, m.bytes.data() + r * m.rowBytes, cols);
    }
    return m;
}

// Where each format keeps its fp16 scales inside a block (byte offsets).
inline std::vector<int> halfFieldOffsets(GgmlType type) {
    switch (type) {
    case GgmlType::Q8_0:
    case GgmlType::Q4_0:
    case GgmlType::Q5_0:
    case GgmlType::IQ4_NL:
    case GgmlType::IQ4_XS:
        return {0};
    case GgmlType::Q4_1:
    case GgmlType::Q5_1:
    case GgmlType::Q4_K:
    case GgmlType::Q5_K:
        return {0, 2};
    case GgmlType::Q6_K:
        return {208};
    case GgmlType::Q3_K:
        return {108};
    case GgmlType::Q2_K:
        return {80, 82};
    default:
        return {};
    }
}

// Blocks of random bytes (every code and sub-scale bit pattern) with finite random fp16 scales,
// the way a foreign quantiser could have written them. Float types get random finite values.
// With `extremeScales`, scales span the whole fp16 range (subnormal to 65504) and every fifth block
// is all zero bytes.
inline EncodedMatrix randomBlocks(GgmlType type, std::int64_t rows, std::int64_t cols, std::uint32_t seed,
                                  bool extremeScales = false) {
    const GgmlTypeTraits traits = ggmlTypeTraits(type);
    if (traits.blockElements == 1) {
        return encode(type, gaussian(static_cast<std::size_t>(rows * cols), seed), rows, cols);
    }
    EncodedMatrix m{type, rows, cols, *ggmlRowBytes(type, cols), {}};
    m.bytes.resize(m.rowBytes * static_cast<std::size_t>(rows));
    std::mt19937 rng(seed);
    for (auto& b : m.bytes)
        b = static_cast<std::uint8_t>(rng());
    std::uniform_real_distribution<float> scale(-0.05f, 0.05f);
    std::uniform_real_distribution<float> exponent(-24.0f, 15.9f);
    const std::size_t blocks = m.bytes.size() / traits.blockBytes;
    for (std::size_t i = 0; i < blocks; ++i) {
        std::uint8_t* block = m.bytes.data() + i * traits.blockBytes;
        if (extremeScales && i % 5 == 0) {
            std::memset(block, 0, traits.blockBytes);
            continue;
        }
        for (int offset : halfFieldOffsets(type)) {
            const float value =
                extremeScales ? std::copysign(std::exp2(exponent(rng)), scale(rng)) : scale(rng);
            const std::uint16_t h = floatToFp16(value);
            std::memcpy(block + offset, &h, 2);
        }
    }
    return m;
}

} // namespace parlune::llm::testing
