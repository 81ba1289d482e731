#include "llm/tensor/CpuFeatures.h"

#include <cpuid.h>
#include <cstdint>
#include <cstdlib>
#include <string_view>

namespace parlune::llm {

namespace {

std::uint64_t readXcr0() {
    std::uint32_t eax = 0, edx = 0;
    __asm__ volatile("xgetbv" : "=a"(eax), "=d"(edx) : "c"(0));
    return (static_cast<std::uint64_t>(edx) << 32) | eax;
}

CpuFeatures detect() {
    CpuFeatures f;
    unsigned eax, ebx, ecx, edx;
    if (!__get_cpuid(1, &eax, &ebx, &ecx, &edx))
        return f;
    const bool osxsave = (ecx >> 27) & 1;
    if (!osxsave)
        return f;
    const std::uint64_t xcr0 = readXcr0();
    const bool ymmState = (xcr0 & 0x6) == 0x6;               // SSE + AVX registers saved
    const bool zmmState = ymmState && (xcr0 & 0xE0) == 0xE0; // opmask + upper zmm
    const bool avx = ((ecx >> 28) & 1) && ymmState;
    f.fma = avx && ((ecx >> 12) & 1);
    f.f16c = avx && ((ecx >> 29) & 1);
    if (__get_cpuid_max(0, nullptr) < 7)
        return f;
    __cpuid_count(7, 0, eax, ebx, ecx, edx);
    f.avx2 = avx && ((ebx >> 5) & 1);
    f.avx512f = zmmState && ((ebx >> 16) & 1);
    f.avx512bw = f.avx512f && ((ebx >> 30) & 1);
    f.avx512vl = f.avx512f && ((ebx >> 31) & 1);
    f.avx512vnni = f.avx512f && ((ecx >> 11) & 1);
    unsigned eax1, ebx1, ecx1, edx1;
    __cpuid_count(7, 1, eax1, ebx1, ecx1, edx1);
    f.avxvnni = avx && ((eax1 >> 4) & 1);
    return f;
}

CpuFeatures applyOverride(CpuFeatures f) {
    const char* env = std::getenv("PARLUNE_CPU");
    if (env == nullptr)
        return f;
    const std::string_view level(env);
    if (level == "scalar")
        return CpuFeatures{};
    if (level == "avx2") {
        f.avx512f = f.avx512bw = f.avx512vl = f.avx512vnni = false;
    }
    return f; // "avx512" or anything else: as detected
}

} // namespace

const CpuFeatures& detectedCpuFeatures() {
    static const CpuFeatures features = detect();
    return features;
}

const CpuFeatures& cpuFeatures() {
    static const CpuFeatures features = applyOverride(detectedCpuFeatures());
    return features;
}

} // namespace parlune::llm
