// Time to the first token of a rewrite: the first one after start (model load included), then with
// the model loaded and the instructions computed from scratch (cold) or taken from the instruction
// cache (cached). Run by hand:
//   parlune-rewrite-bench MODEL.gguf [--runs 5] [--threads N]
#include "core/async/RunUntilDone.h"
#include "core/engine/RewritePrompt.h"
#include "inference/OnDeviceEngine.h"

#include <QCoreApplication>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using namespace parlune;

// A 60-word paragraph, the size of a typical selection.
const char* const sampleText = "I wanted to reach out to let you know that the quarterly report that we "
                               "talked about in the meeting last "
                               "week is going to be a little bit late, because the data from the regional "
                               "offices has not all arrived yet, "
                               "and I think it would be better to wait for everything rather than send "
                               "something incomplete to the board.";

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fprintf(stderr, "usage: parlune-rewrite-bench MODEL.gguf [--runs N] [--threads N]\n");
        return 2;
    }
    const std::string path = argv[1];
    int runs = 5;
    int threads = 0;
    for (int i = 2; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--runs") {
            runs = std::max(1, std::atoi(argv[i + 1]));
        } else if (name == "--threads") {
            threads = std::atoi(argv[i + 1]);
        }
    }

    OnDeviceEngine engine(OnDeviceEngine::Options{.explicitModelPath = path, .threadCount = threads});
    LlmLanguageModelFramework& framework = engine.framework();

    GenerationOptions oneToken;
    oneToken.maximumResponseTokens = 1;
    const QString instructions = RewritePrompt::rewriteInstructions(RewriteMode::makeConcise, {});
    const QString prompt = RewritePrompt::prompt(QString::fromUtf8(sampleText));
    try {
        // The very first rewrite also loads the weights (and faults their pages in).
        (void)runUntilDone(framework.openSession(instructions)->respond(prompt, oneToken, {}));
        const double firstEver = framework.lastResponse()->secondsToFirstToken;
        std::vector<double> cold;
        std::vector<double> cached;
        std::int64_t promptTokens = 0;
        std::int64_t reused = 0;
        for (int run = 0; run < runs; ++run) {
            framework.releaseCaches();
            (void)runUntilDone(framework.openSession(instructions)->respond(prompt, oneToken, {}));
            cold.push_back(framework.lastResponse()->secondsToFirstToken);
            (void)runUntilDone(framework.openSession(instructions)->respond(prompt, oneToken, {}));
            cached.push_back(framework.lastResponse()->secondsToFirstToken);
            promptTokens = framework.lastResponse()->promptTokens;
            reused = framework.lastResponse()->promptTokensReused;
        }
        const double coldMedian = median(cold);
        const double cachedMedian = median(cached);
        std::printf("prompt %lld tokens, %lld of them cached instructions; %d runs\n",
                    static_cast<long long>(promptTokens), static_cast<long long>(reused), runs);
        std::printf("first rewrite after start (loads the model): %.1f ms\n", firstEver * 1000.0);
        std::printf("time to first token: cold %.1f ms, cached %.1f ms (median), cached/cold %.2f\n",
                    coldMedian * 1000.0, cachedMedian * 1000.0, cachedMedian / coldMedian);
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "parlune-rewrite-bench: %s\n", failure.what());
        return 1;
    }
    return 0;
}
