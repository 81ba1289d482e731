#pragma once

namespace parlune::llm {

// What the processor (and the operating system's saved register state) lets us use.
struct CpuFeatures {
    bool avx2 = false;
    bool fma = false;
    bool f16c = false;
    bool avx512f = false;
    bool avx512bw = false;
    bool avx512vl = false;
    bool avx512vnni = false;
    bool avxvnni = false;
};

// Detected once. PARLUNE_CPU=scalar|avx2|avx512 lowers what is reported (never raises it), so
// tests and benchmarks can force a slower path on a capable machine.
const CpuFeatures& cpuFeatures();

// The features actually present, ignoring PARLUNE_CPU.
const CpuFeatures& detectedCpuFeatures();

} // namespace parlune::llm
