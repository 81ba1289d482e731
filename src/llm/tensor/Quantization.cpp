#include "llm/tensor/Quantization.h"

#include "llm/tensor/LowBitCodecs.h"
#include "llm/tensor/ScaleFit.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string>

namespace parlune::llm {

namespace {

constexpr int kSmallBlock = 32;  // elements per block of Q4_0 .. Q8_0
constexpr int kSuperBlock = 256; // elements per block of the K-quants

std::uint16_t loadU16(const std::uint8_t* p) {
    std::uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
void storeU16(std::uint8_t* p, std::uint16_t v) {
    std::memcpy(p, &v, sizeof v);
}
float loadHalf(const std::uint8_t* p) {
    return fp16ToFloat(loadU16(p));
}
// Stores `v` as fp16 and returns the value the decoder will see.
float storeHalf(std::uint8_t* p, float v) {
    const std::uint16_t h = floatToFp16(v);
    storeU16(p, h);
    return fp16ToFloat(h);
}

// The element of largest magnitude, sign kept (the symmetric formats put it on the negative end).
float signedAbsMax(const float* x, int n) {
    float best = 0.0f;
    float bestAbs = 0.0f;
    for (int i = 0; i < n; ++i) {
        if (std::fabs(x[i]) > bestAbs) {
            bestAbs = std::fabs(x[i]);
            best = x[i];
        }
    }
    return best;
}

int nearest(float v) {
    return static_cast<int>(std::lround(v));
}

// ---- 32-element formats ------------------------------------------------------------------

void quantizeQ8_0(const float* x, std::uint8_t* b) {
    float amax = 0.0f;
    for (int i = 0; i < kSmallBlock; ++i)
        amax = std::max(amax, std::fabs(x[i]));
    const float d = amax / 127.0f;
    const float id = d != 0.0f ? 1.0f / d : 0.0f;
    storeHalf(b, d);
    for (int i = 0; i < kSmallBlock; ++i)
        b[2 + i] = static_cast<std::uint8_t>(static_cast<std::int8_t>(nearest(x[i] * id)));
}
void dequantizeQ8_0(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b);
    for (int i = 0; i < kSmallBlock; ++i)
        y[i] = d * static_cast<float>(static_cast<std::int8_t>(b[2 + i]));
}

// Symmetric 4/5-bit: d = max / -2^(bits-1), q = x/d + 2^(bits-1).
template <int Levels> void symmetricCodes(const float* x, std::uint8_t* q, float& d) {
    const float max = signedAbsMax(x, kSmallBlock);
    d = max / -static_cast<float>(Levels / 2);
    const float id = d != 0.0f ? 1.0f / d : 0.0f;
    for (int i = 0; i < kSmallBlock; ++i) {
        const int v = static_cast<int>(x[i] * id + static_cast<float>(Levels / 2) + 0.5f);
        q[i] = static_cast<std::uint8_t>(std::clamp(v, 0, Levels - 1));
    }
}
// Asymmetric 4/5-bit: x = d * q + min.
template <int Levels> void affineCodes(const float* x, std::uint8_t* q, float& d, float& min) {
    min = x[0];
    float max = x[0];
    for (int i = 1; i < kSmallBlock; ++i) {
        min = std::min(min, x[i]);
        max = std::max(max, x[i]);
    }
    d = (max - min) / static_cast<float>(Levels - 1);
    const float id = d != 0.0f ? 1.0f / d : 0.0f;
    for (int i = 0; i < kSmallBlock; ++i) {
        const int v = static_cast<int>((x[i] - min) * id + 0.5f);
        q[i] = static_cast<std::uint8_t>(std::clamp(v, 0, Levels - 1));
    }
}
void packNibbles(const std::uint8_t* q, std::uint8_t* qs) {
    for (int j = 0; j < 16; ++j)
        qs[j] = static_cast<std::uint8_t>((q[j] & 0x0F) | ((q[j + 16] & 0x0F) << 4));
}
std::uint32_t highBits(const std::uint8_t* q) {
    std::uint32_t qh = 0;
    for (int j = 0; j < kSmallBlock; ++j)
        qh |= static_cast<std::uint32_t>((q[j] >> 4) & 1) << j;
    return qh;
}
void unpackCodes(const std::uint8_t* qs, std::uint32_t qh, int* q) {
    for (int j = 0; j < 16; ++j) {
        q[j] = (qs[j] & 0x0F) | static_cast<int>(((qh >> j) & 1) << 4);
        q[j + 16] = (qs[j] >> 4) | static_cast<int>(((qh >> (j + 16)) & 1) << 4);
    }
}

void quantizeQ4_0(const float* x, std::uint8_t* b) {
    std::uint8_t q[kSmallBlock];
    float d;
    symmetricCodes<16>(x, q, d);
    storeHalf(b, d);
    packNibbles(q, b + 2);
}
void dequantizeQ4_0(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b);
    int q[kSmallBlock];
    unpackCodes(b + 2, 0, q);
    for (int i = 0; i < kSmallBlock; ++i)
        y[i] = d * static_cast<float>(q[i] - 8);
}
void quantizeQ4_1(const float* x, std::uint8_t* b) {
    std::uint8_t q[kSmallBlock];
    float d, m;
    affineCodes<16>(x, q, d, m);
    storeHalf(b, d);
    storeHalf(b + 2, m);
    packNibbles(q, b + 4);
}
void dequantizeQ4_1(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b);
    const float m = loadHalf(b + 2);
    int q[kSmallBlock];
    unpackCodes(b + 4, 0, q);
    for (int i = 0; i < kSmallBlock; ++i)
        y[i] = d * static_cast<float>(q[i]) + m;
}
void quantizeQ5_0(const float* x, std::uint8_t* b) {
    std::uint8_t q[kSmallBlock];
    float d;
    symmetricCodes<32>(x, q, d);
    storeHalf(b, d);
    const std::uint32_t qh = highBits(q);
    std::memcpy(b + 2, &qh, 4);
    packNibbles(q, b + 6);
}
void dequantizeQ5_0(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b);
    std::uint32_t qh;
    std::memcpy(&qh, b + 2, 4);
    int q[kSmallBlock];
    unpackCodes(b + 6, qh, q);
    for (int i = 0; i < kSmallBlock; ++i)
        y[i] = d * static_cast<float>(q[i] - 16);
}
void quantizeQ5_1(const float* x, std::uint8_t* b) {
    std::uint8_t q[kSmallBlock];
    float d, m;
    affineCodes<32>(x, q, d, m);
    storeHalf(b, d);
    storeHalf(b + 2, m);
    const std::uint32_t qh = highBits(q);
    std::memcpy(b + 4, &qh, 4);
    packNibbles(q, b + 8);
}
void dequantizeQ5_1(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b);
    const float m = loadHalf(b + 2);
    std::uint32_t qh;
    std::memcpy(&qh, b + 4, 4);
    int q[kSmallBlock];
    unpackCodes(b + 8, qh, q);
    for (int i = 0; i < kSmallBlock; ++i)
        y[i] = d * static_cast<float>(q[i]) + m;
}

// ---- K-quants ----------------------------------------------------------------------------

void packScales6(const int* sc, const int* mn, std::uint8_t* q) {
    for (int j = 0; j < 4; ++j) {
        q[j] = static_cast<std::uint8_t>(sc[j] & 63);
        q[j + 4] = static_cast<std::uint8_t>(mn[j] & 63);
    }
    for (int j = 4; j < 8; ++j) {
        q[j + 4] = static_cast<std::uint8_t>((sc[j] & 0x0F) | ((mn[j] & 0x0F) << 4));
        q[j - 4] |= static_cast<std::uint8_t>((sc[j] >> 4) << 6);
        q[j] |= static_cast<std::uint8_t>((mn[j] >> 4) << 6);
    }
}
void unpackScales6(const std::uint8_t* q, int j, int& sc, int& mn) {
    if (j < 4) {
        sc = q[j] & 63;
        mn = q[j + 4] & 63;
    } else {
        sc = (q[j + 4] & 0x0F) | ((q[j - 4] >> 6) << 4);
        mn = (q[j + 4] >> 4) | ((q[j] >> 6) << 4);
    }
}

// Shared by Q4_K and Q5_K: fits the eight sub-blocks, stores d, dmin and the 6-bit scales, and
// returns the codes (0..nmax) of all 256 elements.
void quantizeKScales(const float* x, int nmax, std::uint8_t* b, int* q) {
    using detail::fitScaleOffset;
    float scales[8], offsets[8];
    float maxScale = 0.0f, maxOffset = 0.0f;
    for (int j = 0; j < 8; ++j) {
        fitScaleOffset(x + 32 * j, 32, nmax, scales[j], offsets[j]);
        maxScale = std::max(maxScale, scales[j]);
        maxOffset = std::max(maxOffset, offsets[j]);
    }
    const float d = storeHalf(b, maxScale / 63.0f);
    const float dmin = storeHalf(b + 2, maxOffset / 63.0f);
    int ls[8], lm[8];
    for (int j = 0; j < 8; ++j) {
        ls[j] = d > 0 ? std::clamp(nearest(scales[j] / d), 0, 63) : 0;
        lm[j] = dmin > 0 ? std::clamp(nearest(offsets[j] / dmin), 0, 63) : 0;
    }
    packScales6(ls, lm, b + 4);
    for (int j = 0; j < 8; ++j) {
        const float dl = d * static_cast<float>(ls[j]);
        const float ml = dmin * static_cast<float>(lm[j]);
        for (int i = 0; i < 32; ++i) {
            q[32 * j + i] = dl > 0 ? std::clamp(nearest((x[32 * j + i] + ml) / dl), 0, nmax) : 0;
        }
    }
}

void quantizeQ4_K(const float* x, std::uint8_t* b) {
    int q[kSuperBlock];
    quantizeKScales(x, 15, b, q);
    std::uint8_t* qs = b + 16;
    for (int c = 0; c < 4; ++c) {
        for (int l = 0; l < 32; ++l)
            qs[32 * c + l] = static_cast<std::uint8_t>(q[64 * c + l] | (q[64 * c + 32 + l] << 4));
    }
}
void dequantizeQ4_K(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b);
    const float dmin = loadHalf(b + 2);
    const std::uint8_t* qs = b + 16;
    for (int c = 0; c < 4; ++c) {
        int sc0, m0, sc1, m1;
        unpackScales6(b + 4, 2 * c, sc0, m0);
        unpackScales6(b + 4, 2 * c + 1, sc1, m1);
        const float d0 = d * static_cast<float>(sc0), o0 = dmin * static_cast<float>(m0);
        const float d1 = d * static_cast<float>(sc1), o1 = dmin * static_cast<float>(m1);
        for (int l = 0; l < 32; ++l) {
            y[64 * c + l] = d0 * static_cast<float>(qs[32 * c + l] & 0x0F) - o0;
            y[64 * c + 32 + l] = d1 * static_cast<float>(qs[32 * c + l] >> 4) - o1;
        }
    }
}
void quantizeQ5_K(const float* x, std::uint8_t* b) {
    int q[kSuperBlock];
    quantizeKScales(x, 31, b, q);
    std::uint8_t* qh = b + 16;
    std::uint8_t* qs = b + 48;
    std::memset(qh, 0, 32);
    for (int c = 0; c < 4; ++c) {
        for (int l = 0; l < 32; ++l) {
            const int lo = q[64 * c + l], hi = q[64 * c + 32 + l];
            qs[32 * c + l] = static_cast<std::uint8_t>((lo & 0x0F) | ((hi & 0x0F) << 4));
            qh[l] |= static_cast<std::uint8_t>(((lo >> 4) << (2 * c)) | ((hi >> 4) << (2 * c + 1)));
        }
    }
}
void dequantizeQ5_K(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b);
    const float dmin = loadHalf(b + 2);
    const std::uint8_t* qh = b + 16;
    const std::uint8_t* qs = b + 48;
    for (int c = 0; c < 4; ++c) {
        int sc0, m0, sc1, m1;
        unpackScales6(b + 4, 2 * c, sc0, m0);
        unpackScales6(b + 4, 2 * c + 1, sc1, m1);
        const float d0 = d * static_cast<float>(sc0), o0 = dmin * static_cast<float>(m0);
        const float d1 = d * static_cast<float>(sc1), o1 = dmin * static_cast<float>(m1);
        for (int l = 0; l < 32; ++l) {
            const int lo = (qs[32 * c + l] & 0x0F) | (((qh[l] >> (2 * c)) & 1) << 4);
            const int hi = (qs[32 * c + l] >> 4) | (((qh[l] >> (2 * c + 1)) & 1) << 4);
            y[64 * c + l] = d0 * static_cast<float>(lo) - o0;
            y[64 * c + 32 + l] = d1 * static_cast<float>(hi) - o1;
        }
    }
}

// Q6_K: ql[128], qh[64], int8 scales[16] (one per 16 elements), fp16 d.
void quantizeQ6_K(const float* x, std::uint8_t* b) {
    float sub[16];
    float maxAbs = 0.0f;
    for (int s = 0; s < 16; ++s) {
        sub[s] = signedAbsMax(x + 16 * s, 16) / -32.0f;
        maxAbs = std::max(maxAbs, std::fabs(sub[s]));
    }
    const float d = storeHalf(b + 208, maxAbs / 127.0f);
    auto* scales = reinterpret_cast<std::int8_t*>(b + 192);
    int q[kSuperBlock];
    for (int s = 0; s < 16; ++s) {
        const int sc = d > 0 ? std::clamp(nearest(sub[s] / d), -128, 127) : 0;
        scales[s] = static_cast<std::int8_t>(sc);
        const float dl = d * static_cast<float>(sc);
        for (int i = 0; i < 16; ++i) {
            q[16 * s + i] = dl != 0 ? std::clamp(nearest(x[16 * s + i] / dl), -32, 31) + 32 : 32;
        }
    }
    std::uint8_t* ql = b;
    std::uint8_t* qh = b + 128;
    for (int h = 0; h < 2; ++h) {
        const int* qq = q + 128 * h;
        for (int l = 0; l < 32; ++l) {
            ql[64 * h + l] = static_cast<std::uint8_t>((qq[l] & 0x0F) | ((qq[l + 64] & 0x0F) << 4));
            ql[64 * h + l + 32] = static_cast<std::uint8_t>((qq[l + 32] & 0x0F) | ((qq[l + 96] & 0x0F) << 4));
            qh[32 * h + l] = static_cast<std::uint8_t>((qq[l] >> 4) | ((qq[l + 32] >> 4) << 2) |
                                                       ((qq[l + 64] >> 4) << 4) | ((qq[l + 96] >> 4) << 6));
        }
    }
}
void dequantizeQ6_K(const std::uint8_t* b, float* y) {
    const float d = loadHalf(b + 208);
    const auto* scales = reinterpret_cast<const std::int8_t*>(b + 192);
    for (int h = 0; h < 2; ++h) {
        const std::uint8_t* ql = b + 64 * h;
        const std::uint8_t* qh = b + 128 + 32 * h;
        float* yy = y + 128 * h;
        const std::int8_t* sc = scales + 8 * h;
        for (int l = 0; l < 32; ++l) {
            const int is = l / 16;
            const int q1 = ((ql[l] & 0x0F) | ((qh[l] & 3) << 4)) - 32;
            const int q2 = ((ql[l + 32] & 0x0F) | (((qh[l] >> 2) & 3) << 4)) - 32;
            const int q3 = ((ql[l] >> 4) | (((qh[l] >> 4) & 3) << 4)) - 32;
            const int q4 = ((ql[l + 32] >> 4) | (((qh[l] >> 6) & 3) << 4)) - 32;
            yy[l] = d * static_cast<float>(sc[is] * q1);
            yy[l + 32] = d * static_cast<float>(sc[is + 2] * q2);
            yy[l + 64] = d * static_cast<float>(sc[is + 4] * q3);
            yy[l + 96] = d * static_cast<float>(sc[is + 6] * q4);
        }
    }
}

// Q8_K: float d, int8 qs[256], int16 sums of each 16 codes.
void quantizeQ8_K(const float* x, std::uint8_t* b) {
    float amax = 0.0f;
    for (int i = 0; i < kSuperBlock; ++i)
        amax = std::max(amax, std::fabs(x[i]));
    const float d = amax / 127.0f;
    const float id = d != 0.0f ? 1.0f / d : 0.0f;
    std::memcpy(b, &d, 4);
    auto* qs = reinterpret_cast<std::int8_t*>(b + 4);
    for (int i = 0; i < kSuperBlock; ++i)
        qs[i] = static_cast<std::int8_t>(std::clamp(nearest(x[i] * id), -127, 127));
    for (int g = 0; g < 16; ++g) {
        int sum = 0;
        for (int i = 0; i < 16; ++i)
            sum += qs[16 * g + i];
        const auto s16 = static_cast<std::int16_t>(sum);
        std::memcpy(b + 260 + 2 * g, &s16, 2);
    }
}
void dequantizeQ8_K(const std::uint8_t* b, float* y) {
    float d;
    std::memcpy(&d, b, 4);
    const auto* qs = reinterpret_cast<const std::int8_t*>(b + 4);
    for (int i = 0; i < kSuperBlock; ++i)
        y[i] = d * static_cast<float>(qs[i]);
}

using BlockEncoder = void (*)(const float*, std::uint8_t*);
using BlockDecoder = void (*)(const std::uint8_t*, float*);
struct Codec {
    GgmlType type;
    BlockEncoder encode;
    BlockDecoder decode;
};
constexpr Codec kCodecs[] = {
    {GgmlType::Q8_0, quantizeQ8_0, dequantizeQ8_0},
    {GgmlType::Q4_0, quantizeQ4_0, dequantizeQ4_0},
    {GgmlType::Q4_1, quantizeQ4_1, dequantizeQ4_1},
    {GgmlType::Q5_0, quantizeQ5_0, dequantizeQ5_0},
    {GgmlType::Q5_1, quantizeQ5_1, dequantizeQ5_1},
    {GgmlType::Q4_K, quantizeQ4_K, dequantizeQ4_K},
    {GgmlType::Q5_K, quantizeQ5_K, dequantizeQ5_K},
    {GgmlType::Q6_K, quantizeQ6_K, dequantizeQ6_K},
    {GgmlType::Q8_K, quantizeQ8_K, dequantizeQ8_K},
    {GgmlType::Q2_K, detail::quantizeQ2_K, detail::dequantizeQ2_K},
    {GgmlType::Q3_K, detail::quantizeQ3_K, detail::dequantizeQ3_K},
    {GgmlType::IQ4_NL, detail::quantizeIQ4_NL, detail::dequantizeIQ4_NL},
    {GgmlType::IQ4_XS, detail::quantizeIQ4_XS, detail::dequantizeIQ4_XS},
};
const Codec* findCodec(GgmlType type) {
    for (const Codec& c : kCodecs) {
        if (c.type == type)
            return &c;
    }
    return nullptr;
}

void checkRow(GgmlType type, std::int64_t n) {
    if (!hasRowCodec(type)) {
        throw std::invalid_argument("no row codec for tensor type " + std::string(ggmlTypeTraits(type).name));
    }
    const GgmlTypeTraits traits = ggmlTypeTraits(type);
    if (n < 0 || n % traits.blockElements != 0) {
        throw std::invalid_argument("row of " + std::to_string(n) + " elements is not a whole number of " +
                                    std::string(traits.name) + " blocks");
    }
}

} // namespace

float fp16ToFloat(std::uint16_t half) {
    const std::uint32_t sign = static_cast<std::uint32_t>(half & 0x8000) << 16;
    const std::uint32_t exponent = (half >> 10) & 0x1F;
    std::uint32_t mantissa = half & 0x3FF;
    std::uint32_t bits;
    if (exponent == 0x1F) {
        bits = sign | 0x7F800000 | (mantissa << 13);
    } else if (exponent != 0) {
        bits = sign | ((exponent + 112) << 23) | (mantissa << 13);
    } else if (mantissa == 0) {
        bits = sign;
    } else { // subnormal: exactly mantissa * 2^-24
        const float magnitude = static_cast<float>(mantissa) * 0x1p-24f;
        bits = sign | std::bit_cast<std::uint32_t>(magnitude);
    }
    return std::bit_cast<float>(bits);
}

std::uint16_t floatToFp16(float value) {
    std::uint32_t x = std::bit_cast<std::uint32_t>(value);
    const auto sign = static_cast<std::uint16_t>((x >> 16) & 0x8000);
    x &= 0x7FFFFFFF;
    if (x >= 0x7F800000) { // infinity or NaN (NaN stays NaN)
        return static_cast<std::uint16_t>(sign | 0x7C00 | (x > 0x7F800000 ? 0x200 | ((x >> 13) & 0x3FF) : 0));
    }
    if (x >= 0x477FF000) { // rounds past the largest finite half
        return static_cast<std::uint16_t>(sign | 0x7C00);
    }
    if (x < 0x38800000) { // subnormal half: let the FPU round at 2^-24 granularity
        const float rounded = std::bit_cast<float>(x) + 0.5f;
        return static_cast<std::uint16_t>(sign | (std::bit_cast<std::uint32_t>(rounded) - 0x3F000000u));
    }
    const std::uint32_t odd = (x >> 13) & 1;
    x += 0xC8000FFFu + odd; // rebias the exponent and round to nearest even
    return static_cast<std::uint16_t>(sign | (x >> 13));
}

float bf16ToFloat(std::uint16_t value) {
    return std::bit_cast<float>(static_cast<std::uint32_t>(value) << 16);
}

std::uint16_t floatToBf16(float value) {
    const std::uint32_t x = std::bit_cast<std::uint32_t>(value);
    if ((x & 0x7FFFFFFF) > 0x7F800000) {
        return static_cast<std::uint16_t>((x >> 16) | 0x40);
    }
    return static_cast<std::uint16_t>((x + 0x7FFF + ((x >> 16) & 1)) >> 16);
}

bool hasRowCodec(GgmlType type) {
    return type == GgmlType::F32 || type == GgmlType::F16 || type == GgmlType::BF16 ||
           findCodec(type) != nullptr;
}

void quantizeRow(GgmlType type, const float* src, void* dst, std::int64_t n) {
    checkRow(type, n);
    auto* out = static_cast<std::uint8_t*>(dst);
    switch (type) {
    case GgmlType::F32:
        std::memcpy(out, src, static_cast<std::size_t>(n) * 4);
        return;
    case GgmlType::F16:
        for (std::int64_t i = 0; i < n; ++i)
            storeU16(out + 2 * i, floatToFp16(src[i]));
        return;
    case GgmlType::BF16:
        for (std::int64_t i = 0; i < n; ++i)
            storeU16(out + 2 * i, floatToBf16(src[i]));
        return;
    default:
        break;
    }
    const Codec& codec = *findCodec(type);
    const GgmlTypeTraits traits = ggmlTypeTraits(type);
    for (std::int64_t i = 0; i < n / traits.blockElements; ++i) {
        codec.encode(src + i * traits.blockElements, out + static_cast<std::size_t>(i) * traits.blockBytes);
    }
}

void dequantizeRow(GgmlType type, const void* src, float* dst, std::int64_t n) {
    checkRow(type, n);
    const auto* in = static_cast<const std::uint8_t*>(src);
    switch (type) {
    case GgmlType::F32:
        std::memcpy(dst, in, static_cast<std::size_t>(n) * 4);
        return;
    case GgmlType::F16:
        for (std::int64_t i = 0; i < n; ++i)
            dst[i] = fp16ToFloat(loadU16(in + 2 * i));
        return;
    case GgmlType::BF16:
        for (std::int64_t i = 0; i < n; ++i)
            dst[i] = bf16ToFloat(loadU16(in + 2 * i));
        return;
    default:
        break;
    }
    const Codec& codec = *findCodec(type);
    const GgmlTypeTraits traits = ggmlTypeTraits(type);
    for (std::int64_t i = 0; i < n / traits.blockElements; ++i) {
        codec.decode(in + static_cast<std::size_t>(i) * traits.blockBytes, dst + i * traits.blockElements);
    }
}

} // namespace parlune::llm
