#include "llm/tensor/MatMul.h"

#include "KernelTestData.h"
#include "llm/tensor/CpuFeatures.h"
#include "llm/tensor/MatMulKernels.h"
#include "llm/tensor/Quantization.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

namespace parlune::llm {
namespace {

using testing::EncodedMatrix;
using testing::gaussian;
using testing::nmse;

constexpr GgmlType kAllTypes[] = {GgmlType::F32,  GgmlType::F16,    GgmlType::BF16,  GgmlType::Q8_0,
                                  GgmlType::Q4_0, GgmlType::Q4_1,   GgmlType::Q5_0,  GgmlType::Q5_1,
                                  GgmlType::Q2_K, GgmlType::Q3_K,   GgmlType::Q4_K,  GgmlType::Q5_K,
                                  GgmlType::Q6_K, GgmlType::IQ4_NL, GgmlType::IQ4_XS};

WeightMatrix view(const EncodedMatrix& m) {
    return {m.type, m.bytes.data(), m.rows, m.cols, m.rowBytes};
}

std::vector<float> product(KernelPath path, const EncodedMatrix& m, const ActivationBuffer& x) {
    std::vector<float> y(static_cast<std::size_t>(m.rows * x.tokens()), -1.0f);
    matmulRowsOn(path, view(m), x, 0, m.rows, y.data(), m.rows);
    return y;
}

// Columns that leave an odd number of 32-blocks (and, for floats, a partial 16-lane step).
std::int64_t oddColumns(GgmlType type) {
    const std::int64_t block = ggmlTypeTraits(type).blockElements;
    return block == 256 ? 768 : block == 32 ? 224 : 200;
}

// Activations with the shapes real models produce: a few large outliers and some all-zero rows.
std::vector<float> activations(std::int64_t tokens, std::int64_t cols, std::uint32_t seed) {
    std::vector<float> x = gaussian(static_cast<std::size_t>(tokens * cols), seed);
    for (std::size_t i = 0; i < x.size(); i += 97)
        x[i] *= 40.0f;
    if (tokens > 2) {
        for (std::int64_t c = 0; c < cols; ++c)
            x[static_cast<std::size_t>(cols + c)] = 0.0f;
    }
    return x;
}

class EveryPath : public ::testing::TestWithParam<GgmlType> {};

TEST_P(EveryPath, SimdPathsMatchTheScalarReference) {
    const GgmlType type = GetParam();
    const std::int64_t cols = oddColumns(type);
    for (const std::int64_t rows : {1, 7, 13}) {
        const EncodedMatrix m =
            testing::randomBlocks(type, rows, cols, 100 + static_cast<std::uint32_t>(rows));
        for (const std::int64_t tokens : {1, 3, 17, 64}) {
            const std::vector<float> xs = activations(tokens, cols, static_cast<std::uint32_t>(tokens));
            ActivationBuffer x;
            prepareActivations(type, xs.data(), tokens, cols, x);
            const std::vector<float> want = product(KernelPath::scalar, m, x);
            for (KernelPath path : {KernelPath::avx2, KernelPath::avx512}) {
                if (!kernelPathAvailable(path))
                    continue;
                const std::vector<float> got = product(path, m, x);
                EXPECT_LT(nmse(want.data(), got.data(), want.size()), 1e-10)
                    << kernelPathName(path) << " rows " << rows << " tokens " << tokens;
            }
        }
    }
}

// A token's result must not depend on how many tokens share the product (speculative decoding
// checks drafted tokens in one batch). Formats whose offsets join through the activation sums
// in one accumulator per lane keep the same operation order either way.
TEST(SymmetricFormats, OneTokenEqualsItsRowInABatch) {
    for (GgmlType type : {GgmlType::Q8_0, GgmlType::Q4_0, GgmlType::Q5_0, GgmlType::Q3_K, GgmlType::IQ4_NL,
                          GgmlType::IQ4_XS}) {
        const std::int64_t cols = oddColumns(type);
        const EncodedMatrix m = testing::randomBlocks(type, 9, cols, 31);
        const std::vector<float> xs = activations(5, cols, 32);
        for (KernelPath path : {KernelPath::scalar, KernelPath::avx2, KernelPath::avx512}) {
            if (!kernelPathAvailable(path))
                continue;
            ActivationBuffer batch;
            prepareActivations(type, xs.data(), 5, cols, batch);
            const std::vector<float> all = product(path, m, batch);
            for (std::int64_t t = 0; t < 5; ++t) {
                ActivationBuffer one;
                prepareActivations(type, xs.data() + t * cols, 1, cols, one);
                const std::vector<float> alone = product(path, m, one);
                for (std::int64_t r = 0; r < m.rows; ++r) {
                    ASSERT_EQ(alone[r], all[t * m.rows + r])
                        << ggmlTypeTraits(type).name << " " << kernelPathName(path) << " token " << t;
                }
            }
        }
    }
}

TEST_P(EveryPath, ProductIsCloseToTheExactOne) {
    // Quantised weights against exact activations: only the activation rounding remains.
    const GgmlType type = GetParam();
    constexpr std::int64_t rows = 9, cols = 512, tokens = 5;
    const std::vector<float> w = gaussian(rows * cols, 5, 0.02f);
    const EncodedMatrix m = testing::encode(type, w, rows, cols);
    std::vector<float> dequantized(static_cast<std::size_t>(rows * cols));
    for (std::int64_t r = 0; r < rows; ++r) {
        dequantizeRow(type, m.bytes.data() + r * m.rowBytes, dequantized.data() + r * cols, cols);
    }
    const std::vector<float> xs = gaussian(tokens * cols, 6);
    std::vector<float> exact(rows * tokens);
    for (std::int64_t t = 0; t < tokens; ++t) {
        for (std::int64_t r = 0; r < rows; ++r) {
            double sum = 0;
            for (std::int64_t c = 0; c < cols; ++c)
                sum += double(dequantized[r * cols + c]) * xs[t * cols + c];
            exact[t * rows + r] = static_cast<float>(sum);
        }
    }
    ActivationBuffer x;
    prepareActivations(type, xs.data(), tokens, cols, x);
    const bool floatWeights = type == GgmlType::F32 || type == GgmlType::F16 || type == GgmlType::BF16;
    std::vector<float> got(rows * tokens);
    matmulRows(view(m), x, 0, rows, got.data(), rows);
    EXPECT_LT(nmse(exact.data(), got.data(), got.size()), floatWeights ? 1e-11 : 1e-4);
}

TEST_P(EveryPath, ExtremeScalesAndZeroBlocksMatchTheScalarReference) {
    const GgmlType type = GetParam();
    const std::int64_t cols = oddColumns(type);
    const EncodedMatrix m = testing::randomBlocks(type, 11, cols, 77, true);
    for (const std::int64_t tokens : {1, 5}) {
        std::vector<float> xs = activations(tokens, cols, 3);
        for (std::size_t i = 0; i < xs.size(); i += 7)
            xs[i] *= 1e4f; // large activations beside small ones
        ActivationBuffer x;
        prepareActivations(type, xs.data(), tokens, cols, x);
        const std::vector<float> want = product(KernelPath::scalar, m, x);
        for (float v : want)
            ASSERT_TRUE(std::isfinite(v));
        for (KernelPath path : {KernelPath::avx2, KernelPath::avx512}) {
            if (!kernelPathAvailable(path))
                continue;
            EXPECT_LT(nmse(want.data(), product(path, m, x).data(), want.size()), 1e-10)
                << kernelPathName(path) << " tokens " << tokens;
        }
    }
}

TEST_P(EveryPath, EveryTailOfRowsColumnsAndTokens) {
    // Small shapes walk every remainder: single blocks, odd block counts, rows and tokens that
    // leave partial register tiles.
    const GgmlType type = GetParam();
    const std::int64_t block =
        ggmlTypeTraits(type).blockElements == 1 ? 8 : ggmlTypeTraits(type).blockElements;
    for (std::int64_t blocks = 1; blocks <= 5; ++blocks) {
        const std::int64_t cols = block * blocks;
        for (std::int64_t rows = 1; rows <= 6; ++rows) {
            const EncodedMatrix m =
                testing::randomBlocks(type, rows, cols, static_cast<std::uint32_t>(rows * 31 + blocks));
            for (std::int64_t tokens = 1; tokens <= 9; tokens += 2) {
                const std::vector<float> xs = gaussian(static_cast<std::size_t>(tokens * cols), 8);
                ActivationBuffer x;
                prepareActivations(type, xs.data(), tokens, cols, x);
                const std::vector<float> want = product(KernelPath::scalar, m, x);
                for (KernelPath path : {KernelPath::avx2, KernelPath::avx512}) {
                    if (!kernelPathAvailable(path))
                        continue;
                    // Few outputs of random signs can nearly cancel, so rounding alone reaches ~1e-10
                    // here; a mishandled tail is off by far more.
                    ASSERT_LT(nmse(want.data(), product(path, m, x).data(), want.size()), 1e-7)
                        << kernelPathName(path) << " cols " << cols << " rows " << rows << " tokens "
                        << tokens;
                }
            }
        }
    }
}

TEST_P(EveryPath, ATokensResultDoesNotDependOnItsBatch) {
    // Drafted tokens are checked in one batch and must score exactly as they would one at a time,
    // so every batch a guess can fill (one-token kernels, streamed tiles, decoded panels) rounds
    // identically. Longer batches (prompts) may round otherwise, but the same at every length;
    // Q8_0 keeps the single steps' rounding at every length, so a prompt and the tokens after it agree.
    const GgmlType type = GetParam();
    const std::int64_t block = std::max<std::int64_t>(ggmlTypeTraits(type).blockElements, 16);
    for (const std::int64_t cols : {block, 5 * block, oddColumns(type), std::int64_t{3 * 1024}}) {
        const EncodedMatrix m = testing::randomBlocks(type, 9, cols, static_cast<std::uint32_t>(cols));
        constexpr std::int64_t kMost = 40;
        constexpr std::int64_t kBatches[] = {2, 3, 4, 5, 6, 9, ActivationBuffer::kMostRegisterTokens, 17, 23};
        const std::vector<float> xs = activations(kMost, cols, static_cast<std::uint32_t>(cols) + 1);
        for (KernelPath path : {KernelPath::scalar, KernelPath::avx2, KernelPath::avx512}) {
            if (!kernelPathAvailable(path))
                continue;
            std::vector<std::vector<float>> alone;
            for (std::int64_t t = 0; t < kMost; ++t) {
                ActivationBuffer x;
                prepareActivations(type, xs.data() + t * cols, 1, cols, x);
                alone.push_back(product(path, m, x));
            }
            ActivationBuffer longest;
            prepareActivations(type, xs.data(), kMost, cols, longest);
            const std::vector<float> prompt = product(path, m, longest);
            for (const std::int64_t tokens : kBatches) {
                ActivationBuffer x;
                prepareActivations(type, xs.data(), tokens, cols, x);
                const std::vector<float> batch = product(path, m, x);
                const bool likeSteps =
                    tokens <= ActivationBuffer::kMostRegisterTokens || type == GgmlType::Q8_0;
                for (std::int64_t t = 0; t < tokens; ++t) {
                    for (std::int64_t r = 0; r < m.rows; ++r) {
                        const float want = likeSteps ? alone[t][r] : prompt[t * m.rows + r];
                        ASSERT_EQ(std::bit_cast<std::uint32_t>(batch[t * m.rows + r]),
                                  std::bit_cast<std::uint32_t>(want))
                            << kernelPathName(path) << " cols " << cols << " batch " << tokens << " token "
                            << t << " row " << r << ": " << batch[t * m.rows + r] << " vs " << want;
                    }
                }
            }
        }
    }
}

// A machine with AVX2 but no AVX-512 prepares the panels' per-token sums with the scalar
// function; the AVX2 panels must then see the very sums the AVX-512 machine gives them.
TEST(RowPanels, ScalarPerTokenSumsAreTheVectorOnesBitForBit) {
    if (!kernelPathAvailable(KernelPath::avx512))
        GTEST_SKIP() << "no AVX-512 here to compare with";
    constexpr std::int64_t cols = 512;
    std::vector<std::int8_t> codes(cols);
    std::vector<float> scales(cols / 32);
    for (std::int64_t i = 0; i < cols; ++i)
        codes[static_cast<std::size_t>(i)] = static_cast<std::int8_t>((i * 37 + i / 7) % 255 - 127);
    for (std::size_t b = 0; b < scales.size(); ++b)
        scales[b] = 0.013f * static_cast<float>(b + 1);
    for (const auto& [width, offset] : {std::pair{16, 32}, std::pair{32, 0}, std::pair{32, 8}}) {
        std::vector<std::int32_t> biasScalar(cols / 16), biasVector(cols / 16);
        std::vector<float> sumsScalar(cols / 32), sumsVector(cols / 32);
        detail::panelSumsScalar(codes.data(), scales.data(), cols, width, offset, biasScalar.data(),
                                sumsScalar.data());
        detail::panelSumsAvx512(codes.data(), scales.data(), cols, width, offset, biasVector.data(),
                                sumsVector.data());
        const std::size_t groups = static_cast<std::size_t>(cols / width);
        EXPECT_TRUE(std::equal(biasScalar.begin(), biasScalar.begin() + static_cast<std::ptrdiff_t>(groups),
                               biasVector.begin()))
            << "group width " << width;
        EXPECT_EQ(sumsScalar, sumsVector) << "group width " << width;
    }
}

TEST(RowPanels, PromptBatchesMatchTheScalarReferenceOnAnyRowRange) {
    // Row ranges that start inside a panel and end in a partial one, token counts that leave every
    // partial tile, and an output stride wider than the rows: nothing outside the range is written.
    // The two instruction sets apply the same integer sums and float steps: the same bits.
    constexpr std::int64_t rows = 37, ldy = 41;
    for (GgmlType type : {GgmlType::Q4_K, GgmlType::Q5_K, GgmlType::Q6_K}) {
        for (const std::int64_t cols : {std::int64_t{256}, oddColumns(type), std::int64_t{1280}}) {
            const EncodedMatrix m =
                testing::randomBlocks(type, rows, cols, static_cast<std::uint32_t>(cols) + 5);
            for (const std::int64_t tokens : {17, 26, 31}) {
                const std::vector<float> xs = activations(tokens, cols, static_cast<std::uint32_t>(tokens));
                ActivationBuffer x;
                prepareActivations(type, xs.data(), tokens, cols, x);
                const std::vector<float> want = product(KernelPath::scalar, m, x);
                std::vector<float> first;
                for (KernelPath path : {KernelPath::avx2, KernelPath::avx512}) {
                    if (!kernelPathAvailable(path))
                        continue;
                    std::vector<float> y(static_cast<std::size_t>(tokens * ldy), 123.0f);
                    matmulRowsOn(path, view(m), x, 5, rows, y.data(), ldy);
                    std::vector<float> got, expected;
                    for (std::int64_t t = 0; t < tokens; ++t) {
                        for (std::int64_t r = 0; r < ldy; ++r) {
                            if (r < 5 || r >= rows) {
                                ASSERT_EQ(y[t * ldy + r], 123.0f) << kernelPathName(path) << " wrote " << r;
                                continue;
                            }
                            got.push_back(y[t * ldy + r]);
                            expected.push_back(want[t * rows + r]);
                        }
                    }
                    EXPECT_LT(nmse(expected.data(), got.data(), got.size()), 1e-10)
                        << ggmlTypeTraits(type).name << " " << kernelPathName(path) << " cols " << cols
                        << " tokens " << tokens;
                    if (first.empty())
                        first = y;
                    // Without panel sums (PARLUNE_CPU=scalar) each set takes its own tiles.
                    if (x.hasPanelSums()) {
                        EXPECT_EQ(first, y)
                            << ggmlTypeTraits(type).name << " cols " << cols << " tokens " << tokens;
                    }
                }
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(AllWeightTypes, EveryPath, ::testing::ValuesIn(kAllTypes),
                         [](const auto& tp) { return std::string(ggmlTypeTraits(tp.param).name); });

TEST(MatMul, WritesOnlyTheRequestedRowsWithTheOutputStride) {
    constexpr std::int64_t rows = 10, cols = 256, tokens = 6, ldy = 16;
    const EncodedMatrix m = testing::encode(GgmlType::Q8_0, gaussian(rows * cols, 1), rows, cols);
    const std::vector<float> xs = gaussian(tokens * cols, 2);
    ActivationBuffer x;
    prepareActivations(GgmlType::Q8_0, xs.data(), tokens, cols, x);
    std::vector<float> whole(tokens * rows);
    matmulRowsOn(KernelPath::scalar, view(m), x, 0, rows, whole.data(), rows);
    for (KernelPath path : {KernelPath::scalar, KernelPath::avx2, KernelPath::avx512}) {
        if (!kernelPathAvailable(path))
            continue;
        std::vector<float> y(tokens * ldy, 123.0f);
        matmulRowsOn(path, view(m), x, 3, 8, y.data(), ldy);
        for (std::int64_t t = 0; t < tokens; ++t) {
            for (std::int64_t r = 0; r < ldy; ++r) {
                if (r >= 3 && r < 8) {
                    EXPECT_NEAR(y[t * ldy + r], whole[t * rows + r],
                                1e-4f * (1 + std::fabs(whole[t * rows + r])));
                } else {
                    EXPECT_EQ(y[t * ldy + r], 123.0f)
                        << kernelPathName(path) << " wrote outside at " << t << "," << r;
                }
            }
        }
    }
}

TEST(MatMul, ReusedActivationBuffersForgetTheirPreviousLayout) {
    // One buffer refilled for other types, widths and token counts, as a forward pass does: every
    // product must match one from a fresh buffer.
    const std::vector<float> xs = gaussian(3 * 768, 9);
    ActivationBuffer reused;
    for (const auto& [type, cols, tokens] :
         {std::tuple{GgmlType::Q4_K, 768, 1}, std::tuple{GgmlType::Q6_K, 512, 1},
          std::tuple{GgmlType::Q4_K, 512, 3}, std::tuple{GgmlType::Q8_0, 768, 1},
          std::tuple{GgmlType::Q6_K, 768, 1}, std::tuple{GgmlType::Q4_K, 256, 1}}) {
        const EncodedMatrix m = testing::encode(type, gaussian(5 * cols, 10), 5, cols);
        prepareActivations(type, xs.data(), tokens, cols, reused);
        ActivationBuffer fresh;
        prepareActivations(type, xs.data(), tokens, cols, fresh);
        for (KernelPath path : {KernelPath::scalar, KernelPath::avx2, KernelPath::avx512}) {
            if (!kernelPathAvailable(path))
                continue;
            EXPECT_EQ(product(path, m, reused), product(path, m, fresh))
                << kernelPathName(path) << " " << ggmlTypeTraits(type).name << " cols " << cols;
        }
    }
}

TEST(MatMul, ZeroWeightsAndZeroActivationsGiveExactZeros) {
    constexpr std::int64_t rows = 5, cols = 512;
    for (GgmlType type : kAllTypes) {
        const EncodedMatrix m = testing::encode(type, std::vector<float>(rows * cols, 0.0f), rows, cols);
        const std::vector<float> xs = gaussian(2 * cols, 4);
        ActivationBuffer x;
        prepareActivations(type, xs.data(), 2, cols, x);
        for (KernelPath path : {KernelPath::scalar, KernelPath::avx2, KernelPath::avx512}) {
            if (!kernelPathAvailable(path))
                continue;
            for (float v : product(path, m, x))
                EXPECT_EQ(v, 0.0f) << ggmlTypeTraits(type).name;
        }
    }
}

TEST(MatMul, LargestCodesDoNotOverflowTheIntegerSums) {
    // Every weight and activation code at its extreme: the 8-bit products summed over a row must
    // stay exact in 32 bits on every path.
    constexpr std::int64_t rows = 4, cols = 4096;
    for (GgmlType type : {GgmlType::Q8_0, GgmlType::Q5_0, GgmlType::Q4_K, GgmlType::Q6_K, GgmlType::Q5_1}) {
        std::vector<float> w(rows * cols);
        for (std::size_t i = 0; i < w.size(); ++i)
            w[i] = (i % 2 ? -1.0f : 1.0f) * 1000.0f;
        for (std::size_t i = 0; i < w.size() / 2; ++i)
            w[i] = -1000.0f; // rows 0-1 all negative
        const EncodedMatrix m = testing::encode(type, w, rows, cols);
        std::vector<float> xs(cols, -1000.0f);
        ActivationBuffer x;
        prepareActivations(type, xs.data(), 1, cols, x);
        const std::vector<float> want = product(KernelPath::scalar, m, x);
        for (KernelPath path : {KernelPath::avx2, KernelPath::avx512}) {
            if (!kernelPathAvailable(path))
                continue;
            EXPECT_LT(nmse(want.data(), product(path, m, x).data(), want.size()), 1e-10)
                << ggmlTypeTraits(type).name;
        }
        EXPECT_NEAR(want[0], 4096.0 * 1e6, 4096.0 * 1e6 * 1e-2) << ggmlTypeTraits(type).name;
    }
}

TEST(MatMul, SuperBlocksAtTheirExtremesSumExactly) {
    // The K-quant kernels for a few tokens pair codes in 16 bits and sum a whole block in 32:
    // every weight code, 6-bit or 8-bit scale and activation code at its extreme, all of one sign
    // so the pairs are as large as they get, must still give the exact product.
    constexpr std::int64_t cols = 1024;
    for (GgmlType type : {GgmlType::Q4_K, GgmlType::Q6_K}) {
        EncodedMatrix m{type, 2, cols, *ggmlRowBytes(type, cols), {}};
        m.bytes.assign(m.rowBytes * 2, 0xFF); // largest codes; Q4_K scales and minima 63
        const std::size_t blockBytes = m.rowBytes / (cols / 256);
        for (std::size_t b = 0; b < m.bytes.size(); b += blockBytes) {
            const bool second = b >= m.rowBytes;
            if (type == GgmlType::Q4_K) {
                const std::uint16_t header[2] = {0x3C00, static_cast<std::uint16_t>(second ? 0x3C00 : 0)};
                std::memcpy(&m.bytes[b], header, 4); // d = 1, dmin = 0 or 1
            } else {
                std::memset(&m.bytes[b + 192], second ? 0x80 : 0x7F, 16); // scales -128 or 127
                const std::uint16_t d = 0x3C00;
                std::memcpy(&m.bytes[b + 208], &d, 2);
            }
        }
        const float weight[2] = {type == GgmlType::Q4_K ? 15.0f * 63 : 31.0f * 127,
                                 type == GgmlType::Q4_K ? 15.0f * 63 - 63 : 31.0f * -128};
        std::vector<float> xs(2 * cols, 1.0f);
        std::fill(xs.begin() + cols, xs.end(), -1.0f);
        for (const std::int64_t tokens : {1, 2}) {
            ActivationBuffer x;
            prepareActivations(type, xs.data(), tokens, cols, x);
            for (KernelPath path : {KernelPath::scalar, KernelPath::avx2, KernelPath::avx512}) {
                if (!kernelPathAvailable(path))
                    continue;
                const std::vector<float> y = product(path, m, x);
                for (std::int64_t t = 0; t < tokens; ++t) {
                    for (std::int64_t r = 0; r < 2; ++r) {
                        const double want = (t ? -1.0 : 1.0) * weight[r] * cols;
                        EXPECT_NEAR(y[t * 2 + r], want, std::abs(want) * 1e-6)
                            << ggmlTypeTraits(type).name << " " << kernelPathName(path) << " row " << r
                            << " token " << t;
                    }
                }
            }
        }
    }
}

TEST(CpuFeatures, TheOverrideOnlyLowersWhatWasDetected) {
    const CpuFeatures& used = cpuFeatures();
    const CpuFeatures& found = detectedCpuFeatures();
    const bool pairs[][2] = {{used.avx2, found.avx2},         {used.fma, found.fma},
                             {used.f16c, found.f16c},         {used.avx512f, found.avx512f},
                             {used.avx512bw, found.avx512bw}, {used.avx512vnni, found.avx512vnni}};
    for (const auto& [u, f] : pairs)
        EXPECT_TRUE(!u || f);
    EXPECT_TRUE(kernelPathAvailable(bestKernelPath()));
    EXPECT_TRUE(!found.avx512f || found.avx2) << "AVX-512 without AVX2 would mean a detection fault";
}

TEST(MatMul, RejectsMismatchedOperands) {
    const EncodedMatrix m = testing::encode(GgmlType::Q8_0, gaussian(4 * 64, 1), 4, 64);
    const std::vector<float> xs = gaussian(128, 2);
    std::vector<float> y(8);
    ActivationBuffer x;
    prepareActivations(GgmlType::Q4_0, xs.data(), 2, 64, x);
    EXPECT_THROW(matmulRows(view(m), x, 0, 4, y.data(), 4),
                 std::invalid_argument); // prepared for another type
    prepareActivations(GgmlType::Q8_0, xs.data(), 1, 128, x);
    EXPECT_THROW(matmulRows(view(m), x, 0, 4, y.data(), 4), std::invalid_argument); // column count
    prepareActivations(GgmlType::Q8_0, xs.data(), 2, 64, x);
    EXPECT_THROW(matmulRows(view(m), x, 2, 5, y.data(), 4), std::invalid_argument); // rows out of range
    EXPECT_THROW(matmulRows(view(m), x, 0, 4, y.data(), 3), std::invalid_argument); // stride too small
    EXPECT_THROW(prepareActivations(GgmlType::Q4_K, xs.data(), 1, 64, x), std::invalid_argument);
    EXPECT_THROW(prepareActivations(GgmlType::Q8_K, xs.data(), 1, 256, x), std::invalid_argument);
}

} // namespace
} // namespace parlune::llm
