#include "llm/tensor/Quantization.h"

#include "KernelTestData.h"

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <limits>
#include <sstream>
#include <stdexcept>

namespace parlune::llm {
namespace {

using testing::gaussian;
using testing::nmse;

TEST(HalfPrecision, EveryFiniteHalfSurvivesARoundTrip) {
    for (std::uint32_t h = 0; h < 0x10000; ++h) {
        const float f = fp16ToFloat(static_cast<std::uint16_t>(h));
        if (std::isnan(f)) {
            EXPECT_TRUE(std::isnan(fp16ToFloat(floatToFp16(f)))) << h;
            continue;
        }
        ASSERT_EQ(floatToFp16(f), h) << "half " << h << " = " << f;
    }
}

TEST(HalfPrecision, RoundsToNearestEvenAndSaturatesToInfinity) {
    EXPECT_EQ(fp16ToFloat(0x3C00), 1.0f);
    EXPECT_EQ(fp16ToFloat(0xC000), -2.0f);
    EXPECT_EQ(fp16ToFloat(0x0001), 0x1p-24f);        // smallest subnormal
    EXPECT_EQ(floatToFp16(1.0f + 0x1p-11f), 0x3C00); // tie goes to even
    EXPECT_EQ(floatToFp16(1.0f + 0x1.8p-10f), 0x3C02);
    EXPECT_EQ(floatToFp16(0x1p-25f), 0x0000); // tie between 0 and the smallest subnormal
    EXPECT_EQ(floatToFp16(0x1.8p-24f), 0x0002);
    EXPECT_EQ(floatToFp16(65504.0f), 0x7BFF);
    EXPECT_EQ(floatToFp16(65519.0f), 0x7BFF);
    EXPECT_EQ(floatToFp16(65520.0f), 0x7C00);
    EXPECT_EQ(floatToFp16(-1e9f), 0xFC00);
    EXPECT_TRUE(std::isnan(fp16ToFloat(floatToFp16(std::numeric_limits<float>::quiet_NaN()))));
}

TEST(BFloat16, KeepsTheTopBitsRoundedToNearestEven) {
    EXPECT_EQ(bf16ToFloat(0x3F80), 1.0f);
    EXPECT_EQ(floatToBf16(1.0f), 0x3F80);
    EXPECT_EQ(floatToBf16(std::bit_cast<float>(0x3F808000u)), 0x3F80); // tie, even stays
    EXPECT_EQ(floatToBf16(std::bit_cast<float>(0x3F818000u)), 0x3F82); // tie, odd rounds up
    EXPECT_EQ(floatToBf16(std::bit_cast<float>(0x3F808001u)), 0x3F81);
    EXPECT_TRUE(std::isnan(bf16ToFloat(floatToBf16(std::numeric_limits<float>::quiet_NaN()))));
}

struct QualityCase {
    GgmlType type;
    double maxNmse; // on N(0, 1) data; measured values are in the report of this branch
};

class RowCodecQuality : public ::testing::TestWithParam<QualityCase> {};

TEST_P(RowCodecQuality, GaussianRowsComeBackWithinTheFormatsError) {
    const auto [type, bound] = GetParam();
    constexpr std::int64_t n = 256 * 64;
    const std::vector<float> x = gaussian(n, 7);
    std::vector<std::uint8_t> encoded(*ggmlRowBytes(type, n));
    std::vector<float> back(n);
    quantizeRow(type, x.data(), encoded.data(), n);
    dequantizeRow(type, encoded.data(), back.data(), n);
    const double error = nmse(x.data(), back.data(), n);
    std::ostringstream text;
    text << error;
    RecordProperty("nmse", text.str());
    EXPECT_LT(error, bound) << ggmlTypeTraits(type).name;
    EXPECT_GT(error, bound / 20) << "suspiciously exact for " << ggmlTypeTraits(type).name;
}

INSTANTIATE_TEST_SUITE_P(
    AllFormats, RowCodecQuality,
    ::testing::Values(QualityCase{GgmlType::F16, 1e-7}, QualityCase{GgmlType::BF16, 1e-5},
                      QualityCase{GgmlType::Q8_0, 5e-5}, QualityCase{GgmlType::Q8_K, 1e-4},
                      QualityCase{GgmlType::Q6_K, 4e-4}, QualityCase{GgmlType::Q5_0, 3.5e-3},
                      QualityCase{GgmlType::Q5_1, 3e-3}, QualityCase{GgmlType::Q5_K, 2e-3},
                      QualityCase{GgmlType::Q4_0, 1.3e-2}, QualityCase{GgmlType::Q4_1, 1.1e-2},
                      QualityCase{GgmlType::Q4_K, 8e-3}, QualityCase{GgmlType::IQ4_NL, 9e-3},
                      QualityCase{GgmlType::IQ4_XS, 9e-3}, QualityCase{GgmlType::Q3_K, 3e-2},
                      QualityCase{GgmlType::Q2_K, 9e-2}),
    [](const auto& tp) { return std::string(ggmlTypeTraits(tp.param.type).name); });

TEST(RowCodec, F32IsExactAndZerosStayZero) {
    const std::vector<float> x = gaussian(64, 3);
    std::vector<float> back(64);
    quantizeRow(GgmlType::F32, x.data(), back.data(), 64);
    EXPECT_EQ(back, x);
    for (GgmlType type : {GgmlType::Q8_0, GgmlType::Q4_0, GgmlType::Q4_1, GgmlType::Q5_0, GgmlType::Q5_1,
                          GgmlType::Q4_K, GgmlType::Q5_K, GgmlType::Q6_K, GgmlType::Q8_K, GgmlType::Q2_K,
                          GgmlType::Q3_K, GgmlType::IQ4_NL, GgmlType::IQ4_XS}) {
        const std::vector<float> zeros(256, 0.0f);
        std::vector<std::uint8_t> encoded(*ggmlRowBytes(type, 256));
        std::vector<float> out(256, 1.0f);
        quantizeRow(type, zeros.data(), encoded.data(), 256);
        dequantizeRow(type, encoded.data(), out.data(), 256);
        EXPECT_EQ(out, zeros) << ggmlTypeTraits(type).name;
    }
}

TEST(RowCodec, ExtremeMagnitudesStayFiniteAndClose) {
    // Huge and tiny blocks next to each other: each block has its own scale.
    std::vector<float> x = gaussian(512, 11);
    for (int i = 0; i < 256; ++i)
        x[i] *= 1e4f;
    for (int i = 256; i < 512; ++i)
        x[i] *= 1e-3f;
    for (GgmlType type : {GgmlType::Q8_0, GgmlType::Q5_0, GgmlType::Q4_K, GgmlType::Q6_K, GgmlType::F16,
                          GgmlType::IQ4_NL, GgmlType::IQ4_XS}) {
        std::vector<std::uint8_t> encoded(*ggmlRowBytes(type, 512));
        std::vector<float> back(512);
        quantizeRow(type, x.data(), encoded.data(), 512);
        dequantizeRow(type, encoded.data(), back.data(), 512);
        EXPECT_LT(nmse(x.data(), back.data(), 256), 2e-2) << ggmlTypeTraits(type).name;
        EXPECT_LT(nmse(x.data() + 256, back.data() + 256, 256), 2e-2) << ggmlTypeTraits(type).name;
    }
}

// Hand-built blocks pin the bit layouts that files written by other tools use.
TEST(BlockLayout, Q4_0LowNibblesHoldTheFirstHalf) {
    std::uint8_t block[18] = {};
    const std::uint16_t one = floatToFp16(0.5f);
    std::memcpy(block, &one, 2);
    block[2] = 0x1F;  // element 0 -> 15, element 16 -> 1
    block[17] = 0x80; // element 15 -> 0, element 31 -> 8
    float y[32];
    dequantizeRow(GgmlType::Q4_0, block, y, 32);
    EXPECT_EQ(y[0], 0.5f * 7);
    EXPECT_EQ(y[16], 0.5f * -7);
    EXPECT_EQ(y[15], 0.5f * -8);
    EXPECT_EQ(y[31], 0.0f);
}

TEST(BlockLayout, Q5_0HighBitsComeFromALittleEndianWord) {
    std::uint8_t block[22] = {};
    const std::uint16_t one = floatToFp16(1.0f);
    std::memcpy(block, &one, 2);
    block[2] = 0x01; // bit 0: element 0
    block[5] = 0x80; // bit 31: element 31
    float y[32];
    dequantizeRow(GgmlType::Q5_0, block, y, 32);
    EXPECT_EQ(y[0], 0.0f); // 16 - 16
    EXPECT_EQ(y[31], 0.0f);
    EXPECT_EQ(y[1], -16.0f);
    EXPECT_EQ(y[16], -16.0f);
}

TEST(BlockLayout, Q4_KSixBitScalesOfTheUpperSubBlocks) {
    std::uint8_t block[144] = {};
    const std::uint16_t one = floatToFp16(1.0f);
    const std::uint16_t two = floatToFp16(2.0f);
    std::memcpy(block, &one, 2);
    std::memcpy(block + 2, &two, 2);
    // Sub-block 5: scale 0x2A (low nibble 0xA in byte 9, high bits 0b10 in byte 1's top bits),
    // min 0x13 (low nibble 3 in byte 9's high half, high bits 0b01 in byte 5's top bits).
    block[4 + 9] = 0x3A;
    block[4 + 1] = 0x80;
    block[4 + 5] = 0x40;
    // Element 32*5 + 0 lives in the high nibble of qs[32*2 + 0].
    block[16 + 64] = 0x70;
    float y[256];
    dequantizeRow(GgmlType::Q4_K, block, y, 256);
    EXPECT_EQ(y[160], 42.0f * 7 - 2.0f * 19);
    EXPECT_EQ(y[161], -2.0f * 19);
    EXPECT_EQ(y[128], 0.0f); // sub-block 4: scale and min zero
}

TEST(BlockLayout, Q6_KElementPositions) {
    std::uint8_t block[210] = {};
    const std::uint16_t one = floatToFp16(1.0f);
    std::memcpy(block + 208, &one, 2);
    for (int s = 0; s < 16; ++s)
        block[192 + s] = static_cast<std::uint8_t>(s + 1);
    block[64 + 32 + 5] = 0xF0;  // second half, ql[32 + 5] high nibble: element 128 + 96 + 5
    block[128 + 32 + 5] = 0xC0; // its two high bits (bits 6-7)
    float y[256];
    dequantizeRow(GgmlType::Q6_K, block, y, 256);
    EXPECT_EQ(y[229], 31.0f * 15); // (63 - 32) * scale of group 229 / 16 = 14 -> 15
    EXPECT_EQ(y[5], -32.0f * 1);
    EXPECT_EQ(y[128 + 32 + 5], -32.0f * 11);
}

TEST(BlockLayout, Q3_KScalesHighBitsAndElementPositions) {
    std::uint8_t block[110] = {};
    const std::uint16_t one = floatToFp16(1.0f);
    std::memcpy(block + 108, &one, 2);
    // Group 5 scale -3 (29 + 32 bias: low nibble of scale byte 5, high bits 2-3 of byte 9),
    // group 12 scale 31 (63: high nibble of byte 4, bits 6-7 of byte 8).
    block[96 + 5] = 13;
    block[96 + 9] = 1 << 2;
    block[96 + 4] = 0xF0;
    block[96 + 8] = 3 << 6;
    block[32 + 19] = 2 << 4; // element 83: low bits 2 (codes byte 19, bits 4-5) ...
    block[19] = 1 << 2;      // ... third bit set (hmask byte 19, bit 2): code 6
    block[9] = 1 << 6;       // element 201: third bit only, code 4
    float y[256];
    dequantizeRow(GgmlType::Q3_K, block, y, 256);
    EXPECT_EQ(y[83], -3.0f * (6 - 4));
    EXPECT_EQ(y[84], -3.0f * (0 - 4));
    EXPECT_EQ(y[200], 31.0f * (0 - 4));
    EXPECT_EQ(y[201], 0.0f);
    EXPECT_EQ(y[0], -32.0f * (0 - 4)); // scale byte 0 zero: -32
}

TEST(BlockLayout, Q2_KScaleMinimumAndElementPositions) {
    std::uint8_t block[84] = {};
    const std::uint16_t one = floatToFp16(1.0f), half = floatToFp16(0.5f);
    std::memcpy(block + 80, &one, 2);
    std::memcpy(block + 82, &half, 2);
    block[9] = 3 | (4 << 4); // group 9: scale 3, minimum 4
    block[16 + 54] = 3;      // element 150: codes byte 32 + 22, bits 0-1
    block[16 + 31] = 2 << 6; // element 127: codes byte 31, bits 6-7
    block[7] = 5;
    float y[256];
    dequantizeRow(GgmlType::Q2_K, block, y, 256);
    EXPECT_EQ(y[150], 3.0f * 3 - 0.5f * 4);
    EXPECT_EQ(y[151], -0.5f * 4);
    EXPECT_EQ(y[127], 5.0f * 2);
}

TEST(BlockLayout, IQ4_XSScalesAndGridLevels) {
    std::uint8_t block[136] = {};
    const std::uint16_t one = floatToFp16(1.0f);
    std::memcpy(block, &one, 2);
    block[4 + 1] = 0x80;  // sub-block 3: low scale bits 8 (high nibble of byte 1) ...
    block[2] = 2 << 6;    // ... high bits 2 (bits 6-7 of the high word): 40, so 8 after the bias
    block[8 + 48] = 0xF0; // sub-block 3, byte 0: element 96 level 0, element 112 level 15
    float y[256];
    dequantizeRow(GgmlType::IQ4_XS, block, y, 256);
    EXPECT_EQ(y[96], 8.0f * -127);
    EXPECT_EQ(y[112], 8.0f * 113);
    EXPECT_EQ(y[0], -32.0f * -127); // scale bits zero: -32
}

TEST(RowCodec, RejectsPartialBlocksAndUnknownTypes) {
    float x[48] = {};
    std::uint8_t out[64];
    EXPECT_THROW(quantizeRow(GgmlType::Q8_0, x, out, 48), std::invalid_argument);
    EXPECT_THROW(dequantizeRow(GgmlType::Q4_K, out, x, 32), std::invalid_argument);
    EXPECT_THROW(quantizeRow(GgmlType::Q8_1, x, out, 32), std::invalid_argument);
    EXPECT_FALSE(hasRowCodec(GgmlType::Q8_1));
}

} // namespace
} // namespace parlune::llm
