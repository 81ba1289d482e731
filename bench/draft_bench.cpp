// What checking a guess costs: the time of one model run over 1 + k tokens (the token chosen and
// k guessed ones) after a rewrite-sized prompt, against one plain decoding step, and how much of a
// step the thread pool's hand-offs take.
//
// usage: parlune-draft-bench MODEL.gguf [threads=2] [runs=7] [prompt tokens=160]
#include "llm/gguf/GgufFile.h"
#include "llm/model/KvCache.h"
#include "llm/model/Model.h"
#include "llm/model/Transformer.h"
#include "llm/parallel/ThreadPool.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

using namespace parlune::llm;

namespace {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// Median time of an empty job handed to the workers and back.
double handOffSeconds(ThreadPool& pool) {
    std::vector<double> times;
    for (int r = 0; r < 2000; ++r) {
        const double t0 = now();
        pool.parallelFor(pool.threadCount(), [](std::int64_t, std::int64_t) {});
        times.push_back(now() - t0);
    }
    return median(times);
}

} // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr,
                     "usage: parlune-draft-bench MODEL.gguf [threads=2] [runs=7] [prompt tokens=160]\n");
        return 2;
    }
    const int threads = argc > 2 ? std::max(1, std::atoi(argv[2])) : 2;
    const int runs = argc > 3 ? std::max(1, std::atoi(argv[3])) : 7;
    const std::int64_t promptTokens = argc > 4 ? std::max(1, std::atoi(argv[4])) : 160;
    const auto model = Model::fromFile(GgufFile::open(argv[1]));
    ThreadPool pool(threads);
    Transformer transformer(model, pool);
    KvCache cache(model->config());
    const auto vocabulary = static_cast<std::int32_t>(model->config().vocabularySize);
    std::vector<std::int32_t> tokens;
    for (std::int64_t i = 0; i < promptTokens + 16; ++i)
        tokens.push_back(static_cast<std::int32_t>((i * 7919 + 11) % vocabulary));
    std::vector<float> logits;
    transformer.forward(std::span(tokens).first(static_cast<std::size_t>(promptTokens)), cache, logits);

    std::printf("%s, %d thread(s), prompt %lld tokens, medians of %d runs\n", argv[1], threads,
                static_cast<long long>(promptTokens), runs);
    std::printf("%8s | %9s | %12s | %16s | %9s\n", "tokens", "ms/run", "ms/token", "run / one step",
                "hand-offs");
    double single = 0.0;
    for (const std::int64_t batch : {1, 2, 3, 4, 5, 7, 9}) {
        const auto piece = std::span(tokens).subspan(static_cast<std::size_t>(promptTokens),
                                                     static_cast<std::size_t>(batch));
        std::vector<double> times;
        std::uint32_t handOffs = 0;
        for (int r = 0; r <= runs; ++r) {
            const std::uint32_t before = pool.handOffs();
            const double t0 = now();
            transformer.forward(piece, cache, logits, true);
            const double took = now() - t0;
            handOffs = pool.handOffs() - before;
            cache.truncate(promptTokens);
            if (r > 0) // the first run warms up
                times.push_back(took);
        }
        const double t = median(times);
        if (batch == 1)
            single = t;
        std::printf("%8lld | %9.2f | %12.2f | %16.2f | %9u\n", static_cast<long long>(batch), t * 1e3,
                    t * 1e3 / static_cast<double>(batch), t / single, handOffs);
        std::fflush(stdout);
        if (batch == 1 && threads > 1) {
            const double handOff = handOffSeconds(pool);
            std::printf("  hand-off to the workers and back: %.1f us each, %u per step = %.2f ms (%.1f%% of "
                        "a step)\n",
                        handOff * 1e6, handOffs, handOff * handOffs * 1e3, 100.0 * handOff * handOffs / t);
        }
    }
    return 0;
}
