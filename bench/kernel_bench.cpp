// Matrix-product throughput on the weight shapes of two small chat models, the way a forward
// pass uses them: every layer's matrices once per step, rows split over the thread pool.
//   nTokens = 1   (generation): GB/s of weights streamed; bounded by memory bandwidth.
//   nTokens = 128 (prompt): GFLOP/s (2 * rows * cols * tokens per product).
// Weights are random blocks with sane scales (speed does not depend on the values). Each figure
// is the median of several runs, because the machine is shared.
//
// usage: parlune-kernel-bench [runs=7] [filter substring]
//        parlune-kernel-bench bandwidth [threads=2]   (prints the plain read bandwidth in GB/s)

#include "llm/parallel/ThreadPool.h"
#include "llm/tensor/MatMul.h"
#include "llm/tensor/Quantization.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <time.h>
#include <vector>

using namespace parlune::llm;

namespace {

struct Shape {
    const char* model;
    std::int64_t hidden, ffn, vocab, kv, layers;
};

struct Matrix {
    GgmlType type;
    std::int64_t rows, cols;
    std::vector<std::uint8_t> bytes;
    WeightMatrix view() const { return {type, bytes.data(), rows, cols, *ggmlRowBytes(type, cols)}; }
};

Matrix randomMatrix(GgmlType type, std::int64_t rows, std::int64_t cols, std::uint64_t seed) {
    Matrix m{type, rows, cols, {}};
    const std::size_t rowBytes = *ggmlRowBytes(type, cols);
    m.bytes.resize(rowBytes * static_cast<std::size_t>(rows));
    std::uint64_t s = seed * 0x9E3779B97F4A7C15ull + 1;
    for (std::size_t i = 0; i + 8 <= m.bytes.size(); i += 8) {
        s ^= s << 13;
        s ^= s >> 7;
        s ^= s << 17;
        std::memcpy(m.bytes.data() + i, &s, 8);
    }
    // Finite scales where each format keeps them.
    const GgmlTypeTraits traits = ggmlTypeTraits(type);
    std::vector<int> halves;
    if (type == GgmlType::Q6_K)
        halves = {208};
    else if (type == GgmlType::Q3_K)
        halves = {108};
    else if (type == GgmlType::Q2_K)
        halves = {80, 82};
    else if (type == GgmlType::Q4_K || type == GgmlType::Q5_K || type == GgmlType::Q4_1 ||
             type == GgmlType::Q5_1)
        halves = {0, 2};
    else if (traits.blockElements > 1)
        halves = {0};
    const std::uint16_t h = floatToFp16(0.01f);
    if (traits.blockElements == 1) {
        std::vector<float> row(static_cast<std::size_t>(cols), 0.01f);
        for (std::int64_t r = 0; r < rows; ++r)
            quantizeRow(type, row.data(), m.bytes.data() + r * rowBytes, cols);
    }
    for (std::size_t b = 0; traits.blockElements > 1 && b < m.bytes.size() / traits.blockBytes; ++b) {
        for (int off : halves)
            std::memcpy(m.bytes.data() + b * traits.blockBytes + off, &h, 2);
    }
    return m;
}

struct Layer {
    std::vector<Matrix> matrices; // q, k, v, o, gate, up, down
};

// Mix names the weight type of each matrix: "Q8_0" everywhere, or the usual 4-bit medium mix
// (Q5_0 where a row is not a whole number of 256-blocks, Q4_K/Q6_K alternating on ffn_down,
// Q8_0 output).
GgmlType typeFor(const std::string& mix, std::int64_t cols, bool down, std::int64_t layer, bool output) {
    if (mix == "Q8_0" || output)
        return GgmlType::Q8_0;
    if (mix == "F16")
        return GgmlType::F16;
    if (down && cols % 256 == 0)
        return layer % 2 ? GgmlType::Q6_K : GgmlType::Q4_K;
    return cols % 256 == 0 ? GgmlType::Q4_K : GgmlType::Q5_0;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// One product over the pool, rows handed out in groups of 4.
void product(ThreadPool& pool, const Matrix& m, const ActivationBuffer& x, float* y) {
    const WeightMatrix w = m.view();
    pool.parallelFor((m.rows + 3) / 4, [&](std::int64_t begin, std::int64_t end) {
        matmulRows(w, x, begin * 4, std::min(end * 4, m.rows), y, m.rows);
    });
}

struct Model {
    std::vector<Layer> layers;
    Matrix output;
    std::size_t bytes = 0;
    double flopsPerToken = 0;
};

Model build(const Shape& s, const std::string& mix) {
    Model model;
    for (std::int64_t l = 0; l < s.layers; ++l) {
        Layer layer;
        const std::int64_t dims[7][2] = {{s.hidden, s.hidden}, {s.kv, s.hidden},  {s.kv, s.hidden},
                                         {s.hidden, s.hidden}, {s.ffn, s.hidden}, {s.ffn, s.hidden},
                                         {s.hidden, s.ffn}};
        for (int i = 0; i < 7; ++i) {
            const GgmlType type = typeFor(mix, dims[i][1], i == 6, l, false);
            layer.matrices.push_back(
                randomMatrix(type, dims[i][0], dims[i][1], static_cast<std::uint64_t>(l * 8 + i)));
        }
        model.layers.push_back(std::move(layer));
    }
    model.output = randomMatrix(typeFor(mix, s.hidden, false, 0, true), s.vocab, s.hidden, 999);
    for (const Layer& l : model.layers) {
        for (const Matrix& m : l.matrices) {
            model.bytes += m.bytes.size();
            model.flopsPerToken += 2.0 * double(m.rows) * double(m.cols);
        }
    }
    model.bytes += model.output.bytes.size();
    model.flopsPerToken += 2.0 * double(model.output.rows) * double(model.output.cols);
    return model;
}

// Time of one full step (every matrix once) for `tokens` tokens.
double step(ThreadPool& pool, const Model& model, std::int64_t tokens, const Shape& s,
            std::vector<ActivationBuffer>& acts, const std::vector<float>& input, std::vector<float>& y) {
    const double t0 = seconds();
    for (const Layer& layer : model.layers) {
        for (const Matrix& m : layer.matrices) {
            ActivationBuffer& x = acts[static_cast<std::size_t>(m.type)];
            prepareActivations(m.type, input.data(), tokens, m.cols, x);
            product(pool, m, x, y.data());
        }
    }
    ActivationBuffer& x = acts[static_cast<std::size_t>(model.output.type)];
    prepareActivations(model.output.type, input.data(), tokens, s.hidden, x);
    product(pool, model.output, x, y.data());
    return seconds() - t0;
}

// Plain read bandwidth at the same moment (the machine is shared): sums a buffer larger than any
// cache, split over the pool like the products are.
double readBandwidth(ThreadPool& pool, const std::vector<std::uint64_t>& buffer, int runs) {
    std::vector<double> times;
    std::atomic<std::uint64_t> sink{0};
    const auto words = static_cast<std::int64_t>(buffer.size());
    for (int r = 0; r < runs; ++r) {
        const double t0 = seconds();
        pool.parallelFor(words / 4096, [&](std::int64_t begin, std::int64_t end) {
            std::uint64_t a = 0, b = 0, c = 0, d = 0;
            for (std::int64_t i = begin * 4096; i < end * 4096; i += 4) {
                a += buffer[i];
                b += buffer[i + 1];
                c += buffer[i + 2];
                d += buffer[i + 3];
            }
            sink += a + b + c + d;
        });
        times.push_back(seconds() - t0);
    }
    return double(words) * 8 / median(times) / 1e9;
}

double threadSeconds() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
}

// One thread, one 256 x 1024 matrix that stays in L2, timed by the thread's own CPU clock: what
// the kernels can do per core regardless of memory bandwidth and of other programs' load.
void inCacheThroughput(int runs) {
    std::printf("\nper-thread kernel throughput, matrix in L2, thread CPU time (median of %d):\n", runs);
    std::printf("%-6s | %10s | %14s\n", "type", "1 tok GB/s", "64 tok GFLOP/s");
    constexpr std::int64_t rows = 256, cols = 1024;
    for (GgmlType type : {GgmlType::Q8_0, GgmlType::Q4_0, GgmlType::Q5_0, GgmlType::Q2_K, GgmlType::Q3_K,
                          GgmlType::Q4_K, GgmlType::Q5_K, GgmlType::Q6_K, GgmlType::IQ4_NL, GgmlType::IQ4_XS,
                          GgmlType::F16, GgmlType::BF16, GgmlType::F32}) {
        const Matrix m = randomMatrix(type, rows, cols, 7);
        std::vector<float> input(static_cast<std::size_t>(64 * cols), 0.5f),
            y(static_cast<std::size_t>(64 * rows));
        double figures[2] = {};
        for (int pass = 0; pass < 2; ++pass) {
            const std::int64_t tokens = pass == 0 ? 1 : 64;
            const int reps = pass == 0 ? 200 : 4;
            ActivationBuffer x;
            prepareActivations(type, input.data(), tokens, cols, x);
            std::vector<double> times;
            for (int r = 0; r < runs; ++r) {
                const double t0 = threadSeconds();
                for (int i = 0; i < reps; ++i)
                    matmulRows(m.view(), x, 0, rows, y.data(), rows);
                times.push_back((threadSeconds() - t0) / reps);
            }
            const double t = median(times);
            figures[pass] =
                pass == 0 ? double(m.bytes.size()) / t / 1e9 : 2.0 * rows * cols * tokens / t / 1e9;
        }
        std::printf("%-6s | %10.1f | %14.1f\n", std::string(ggmlTypeTraits(type).name).c_str(), figures[0],
                    figures[1]);
    }
    std::printf("\n");
}

// One token against a 256 MB matrix of each type, rows split over 1 and 2 threads: what the
// kernels reach when the weights stream from memory, as in generation.
void fromMemoryThroughput(int runs) {
    std::printf("one-token product from memory, 2048 columns, 256 MB per type (median of %d):\n", runs);
    std::printf("%-6s | %12s | %12s\n", "type", "1 thr GB/s", "2 thr GB/s");
    constexpr std::int64_t cols = 2048;
    for (GgmlType type :
         {GgmlType::Q8_0, GgmlType::Q4_0, GgmlType::Q5_0, GgmlType::Q2_K, GgmlType::Q3_K, GgmlType::Q4_K,
          GgmlType::Q5_K, GgmlType::Q6_K, GgmlType::IQ4_NL, GgmlType::IQ4_XS, GgmlType::F16}) {
        const std::int64_t rows =
            (std::int64_t{256} << 20) / static_cast<std::int64_t>(*ggmlRowBytes(type, cols));
        const Matrix m = randomMatrix(type, rows, cols, 11);
        std::vector<float> input(static_cast<std::size_t>(cols), 0.5f), y(static_cast<std::size_t>(rows));
        ActivationBuffer x;
        prepareActivations(type, input.data(), 1, cols, x);
        double figures[2] = {};
        for (int threads : {1, 2}) {
            ThreadPool pool(threads);
            product(pool, m, x, y.data()); // warm up
            std::vector<double> times;
            for (int r = 0; r < runs; ++r) {
                const double t0 = seconds();
                product(pool, m, x, y.data());
                times.push_back(seconds() - t0);
            }
            figures[threads - 1] = double(m.bytes.size()) / median(times) / 1e9;
        }
        std::printf("%-6s | %12.1f | %12.1f\n", std::string(ggmlTypeTraits(type).name).c_str(), figures[0],
                    figures[1]);
    }
    std::printf("\n");
}

// 512 MiB whose every page is written with different words, so none is shared or left unmapped.
std::vector<std::uint64_t> bandwidthBuffer() {
    std::vector<std::uint64_t> buffer(std::size_t{64} << 20);
    for (std::size_t i = 0; i < buffer.size(); ++i)
        buffer[i] = i * 0x9E3779B97F4A7C15ull;
    return buffer;
}

} // namespace

int main(int argc, char** argv) {
    if (argc > 1 && std::string(argv[1]) == "bandwidth") {
        ThreadPool pool(argc > 2 ? std::max(1, std::atoi(argv[2])) : 2);
        std::printf("%.2f\n", readBandwidth(pool, bandwidthBuffer(), 7));
        return 0;
    }
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
    const std::string filter = argc > 2 ? argv[2] : "";
    {
        const std::vector<std::uint64_t> buffer = bandwidthBuffer();
        for (int threads : {1, 2}) {
            ThreadPool pool(threads);
            std::printf("plain read bandwidth now, %d thread(s): %.2f GB/s\n", threads,
                        readBandwidth(pool, buffer, runs));
        }
    }
    const Shape shapes[] = {{"qwen2.5-1.5b", 1536, 8960, 151936, 256, 28},
                            {"qwen2.5-0.5b", 896, 4864, 151936, 128, 24},
                            {"smollm2-135m", 576, 1536, 49152, 192, 30}};
    std::printf("kernel path: %s, medians of %d runs\n", kernelPathName(bestKernelPath()), runs);
    inCacheThroughput(runs);
    fromMemoryThroughput(runs);
    std::printf("%-14s %-7s %5s %3s | %8s %8s %7s %9s | %10s %10s %8s\n", "shape", "mix", "MB", "thr",
                "gen GB/s", "(best)", "gen ms", "gen tok/s", "pp GFLOP/s", "(best)", "pp tok/s");
    for (const Shape& s : shapes) {
        for (const std::string mix : {"Q8_0", "Q4_K_M", "F16"}) {
            const std::string name = std::string(s.model) + " " + mix;
            if (!filter.empty() && name.find(filter) == std::string::npos)
                continue;
            const Model model = build(s, mix);
            std::vector<ActivationBuffer> acts(64);
            const std::int64_t maxCols = std::max(s.hidden, s.ffn);
            std::vector<float> input(static_cast<std::size_t>(128 * maxCols));
            std::mt19937 rng(1);
            std::normal_distribution<float> dist;
            for (float& v : input)
                v = dist(rng);
            std::vector<float> y(static_cast<std::size_t>(128 * s.vocab));
            for (int threads : {1, 2}) {
                ThreadPool pool(threads);
                step(pool, model, 1, s, acts, input, y); // warm up
                std::vector<double> gen, prompt;
                for (int r = 0; r < runs; ++r)
                    gen.push_back(step(pool, model, 1, s, acts, input, y));
                const int promptRuns = std::max(3, runs / 2);
                for (int r = 0; r < promptRuns; ++r)
                    prompt.push_back(step(pool, model, 128, s, acts, input, y));
                const double g = median(gen), p = median(prompt);
                const double gBest = *std::min_element(gen.begin(), gen.end());
                const double pBest = *std::min_element(prompt.begin(), prompt.end());
                std::printf("%-14s %-7s %5.0f %3d | %8.2f %8.2f %7.2f %9.1f | %10.1f %10.1f %8.1f\n", s.model,
                            mix.c_str(), double(model.bytes) / 1e6, threads, double(model.bytes) / g / 1e9,
                            double(model.bytes) / gBest / 1e9, g * 1e3, 1.0 / g,
                            model.flopsPerToken * 128 / p / 1e9, model.flopsPerToken * 128 / pBest / 1e9,
                            128 / p);
                std::fflush(stdout);
            }
        }
    }
    return 0;
}
