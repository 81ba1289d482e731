#include "llm/tensor/LowBitCodecs.h"

#include "llm/tensor/Quantization.h"
#include "llm/tensor/ScaleFit.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace parlune::llm::detail {

namespace {

constexpr int kBlock = 256;

float loadHalf(const std::uint8_t* p) {
    std::uint16_t h;
    std::memcpy(&h, p, 2);
    return fp16ToFloat(h);
}
// Stores `v` as fp16 and returns the value the decoder will see.
float storeHalf(std::uint8_t* p, float v) {
    const std::uint16_t h = floatToFp16(v);
    std::memcpy(p, &h, 2);
    return fp16ToFloat(h);
}
int nearest(float v) {
    return static_cast<int>(std::lround(v));
}
// The element of largest magnitude, sign kept.
float signedAbsMax(const float* x, int n) {
    float best = 0.0f;
    for (int i = 0; i < n; ++i) {
        if (std::fabs(x[i]) > std::fabs(best))
            best = x[i];
    }
    return best;
}

// ---- IQ4 grid ----------------------------------------------------------------------------

int nearestLevel(float v) {
    int best = 0;
    for (int i = 1; i < 16; ++i) {
        if (std::fabs(v - kIq4Levels[i]) < std::fabs(v - kIq4Levels[best]))
            best = i;
    }
    return best;
}

// Codes of x / d on the grid; returns the squared error.
float iq4Codes(const float* x, int n, float d, std::uint8_t* codes) {
    const float id = d != 0.0f ? 1.0f / d : 0.0f;
    float err = 0.0f;
    for (int i = 0; i < n; ++i) {
        codes[i] = static_cast<std::uint8_t>(nearestLevel(x[i] * id));
        const float e = x[i] - d * static_cast<float>(kIq4Levels[codes[i]]);
        err += e * e;
    }
    return err;
}

// The grid is not symmetric, so both of its ends are tried for the largest value, each over a
// range of stretches refined by least squares.
float fitIq4Scale(const float* x, int n) {
    const float max = signedAbsMax(x, n);
    if (max == 0.0f)
        return 0.0f;
    std::uint8_t codes[32];
    float best = 0.0f;
    float bestErr = std::numeric_limits<float>::infinity();
    for (const float end : {-127.0f, 113.0f}) {
        for (int step = -6; step <= 6; ++step) {
            iq4Codes(x, n, max / (end + 3.0f * static_cast<float>(step)), codes);
            float sxl = 0.0f, sll = 0.0f;
            for (int i = 0; i < n; ++i) {
                const auto l = static_cast<float>(kIq4Levels[codes[i]]);
                sxl += x[i] * l;
                sll += l * l;
            }
            const float d = sll > 0.0f ? sxl / sll : 0.0f;
            const float err = iq4Codes(x, n, d, codes);
            if (err < bestErr) {
                bestErr = err;
                best = d;
            }
        }
    }
    return best;
}

void packIq4Nibbles(const std::uint8_t* codes, std::uint8_t* qs) {
    for (int j = 0; j < 16; ++j)
        qs[j] = static_cast<std::uint8_t>(codes[j] | (codes[j + 16] << 4));
}
void unpackIq4Nibbles(const std::uint8_t* qs, float d, float* y) {
    for (int j = 0; j < 16; ++j) {
        y[j] = d * static_cast<float>(kIq4Levels[qs[j] & 0x0F]);
        y[j + 16] = d * static_cast<float>(kIq4Levels[qs[j] >> 4]);
    }
}

} // namespace

// ---- Q2_K: 16 x {4-bit scale, 4-bit min}, 2-bit codes, fp16 d and dmin -------------------

void quantizeQ2_K(const float* x, std::uint8_t* b) {
    float scales[16], offsets[16];
    float maxScale = 0.0f, maxOffset = 0.0f;
    for (int j = 0; j < 16; ++j) {
        fitScaleOffset(x + 16 * j, 16, 3, scales[j], offsets[j]);
        maxScale = std::max(maxScale, scales[j]);
        maxOffset = std::max(maxOffset, offsets[j]);
    }
    const float d = storeHalf(b + kQ2KScale, maxScale / 15.0f);
    const float dmin = storeHalf(b + kQ2KMin, maxOffset / 15.0f);
    std::uint8_t* qs = b + kQ2KCodes;
    std::memset(qs, 0, 64);
    for (int j = 0; j < 16; ++j) {
        const int ls = d > 0 ? std::clamp(nearest(scales[j] / d), 0, 15) : 0;
        const int lm = dmin > 0 ? std::clamp(nearest(offsets[j] / dmin), 0, 15) : 0;
        b[j] = static_cast<std::uint8_t>(ls | (lm << 4));
        const float dl = d * static_cast<float>(ls);
        const float ml = dmin * static_cast<float>(lm);
        for (int e = 16 * j; e < 16 * j + 16; ++e) {
            const int q = dl > 0 ? std::clamp(nearest((x[e] + ml) / dl), 0, 3) : 0;
            qs[lowBitsByte(e)] |= static_cast<std::uint8_t>(q << lowBitsShift(e));
        }
    }
}

void dequantizeQ2_K(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b + kQ2KScale);
    const float dmin = loadHalf(b + kQ2KMin);
    const std::uint8_t* qs = b + kQ2KCodes;
    for (int e = 0; e < kBlock; ++e) {
        const int sc = b[e / 16];
        const int q = (qs[lowBitsByte(e)] >> lowBitsShift(e)) & 3;
        y[e] = d * static_cast<float>(sc & 0x0F) * static_cast<float>(q) - dmin * static_cast<float>(sc >> 4);
    }
}

// ---- Q3_K: hmask[32], 2-bit codes, 16 signed 6-bit scales, fp16 d ------------------------

void quantizeQ3_K(const float* x, std::uint8_t* b) {
    float sub[16];
    for (int j = 0; j < 16; ++j)
        sub[j] = signedAbsMax(x + 16 * j, 16) / -4.0f;
    const float d = storeHalf(b + kQ3KScale, signedAbsMax(sub, 16) / -32.0f);
    std::memset(b, 0, kQ3KScale);
    std::uint8_t* packed = b + kQ3KScales;
    std::uint8_t* qs = b + kQ3KCodes;
    for (int j = 0; j < 16; ++j) {
        const int sc = d != 0 ? std::clamp(nearest(sub[j] / d), -32, 31) : 0;
        const int v = sc + 32;
        packed[j % 8] |= static_cast<std::uint8_t>((v & 0x0F) << (j < 8 ? 0 : 4));
        packed[8 + j % 4] |= static_cast<std::uint8_t>((v >> 4) << (2 * (j / 4)));
        const float dl = d * static_cast<float>(sc);
        for (int e = 16 * j; e < 16 * j + 16; ++e) {
            const int q = dl != 0 ? std::clamp(nearest(x[e] / dl), -4, 3) + 4 : 4;
            qs[lowBitsByte(e)] |= static_cast<std::uint8_t>((q & 3) << lowBitsShift(e));
            b[e % 32] |= static_cast<std::uint8_t>((q >> 2) << (e / 32));
        }
    }
}

void dequantizeQ3_K(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b + kQ3KScale);
    const std::uint8_t* qs = b + kQ3KCodes;
    for (int e = 0; e < kBlock; ++e) {
        const int q = ((qs[lowBitsByte(e)] >> lowBitsShift(e)) & 3) | (((b[e % 32] >> (e / 32)) & 1) << 2);
        y[e] = d * static_cast<float>(q3kScale(b + kQ3KScales, e / 16) * (q - 4));
    }
}

// ---- IQ4_NL: fp16 d, 16 bytes of grid codes ----------------------------------------------

void quantizeIQ4_NL(const float* x, std::uint8_t* b) {
    const float d = storeHalf(b, fitIq4Scale(x, 32));
    std::uint8_t codes[32];
    iq4Codes(x, 32, d, codes);
    packIq4Nibbles(codes, b + 2);
}

void dequantizeIQ4_NL(const std::uint8_t* b, float* y) {
    unpackIq4Nibbles(b + 2, loadHalf(b), y);
}

// ---- IQ4_XS: fp16 d, high scale bits (u16), low scale nibbles[4], codes[128] --------------

void quantizeIQ4_XS(const float* x, std::uint8_t* b) {
    float sub[8];
    for (int j = 0; j < 8; ++j)
        sub[j] = fitIq4Scale(x + 32 * j, 32);
    const float d = storeHalf(b, signedAbsMax(sub, 8) / -32.0f);
    std::memset(b + 2, 0, kIq4XsCodes - 2);
    std::uint16_t high = 0;
    for (int j = 0; j < 8; ++j) {
        const int sc = d != 0 ? std::clamp(nearest(sub[j] / d), -32, 31) : 0;
        const int v = sc + 32;
        b[kIq4XsLowScales + j / 2] |= static_cast<std::uint8_t>((v & 0x0F) << (4 * (j % 2)));
        high = static_cast<std::uint16_t>(high | ((v >> 4) << (2 * j)));
        std::uint8_t codes[32];
        iq4Codes(x + 32 * j, 32, d * static_cast<float>(sc), codes);
        packIq4Nibbles(codes, b + kIq4XsCodes + 16 * j);
    }
    std::memcpy(b + kIq4XsHighScales, &high, 2);
}

void dequantizeIQ4_XS(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b);
    for (int j = 0; j < 8; ++j)
        unpackIq4Nibbles(b + kIq4XsCodes + 16 * j, d * static_cast<float>(iq4xsScale(b, j)), y + 32 * j);
}

} // namespace parlune::llm::detail
