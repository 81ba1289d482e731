#include "cli/ModelCommands.h"

#include "core/diagnostics/PrintableText.h"
#include "llm/gguf/GgufFile.h"
#include "llm/model/KvCache.h"
#include "llm/model/Model.h"
#include "llm/model/Transformer.h"
#include "llm/parallel/PhysicalCores.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/runtime/GenerationSession.h"
#include "llm/testing/TestModelMaker.h"
#include "llm/tokenizer/ChatFormat.h"
#include "llm/tokenizer/Tokenizer.h"

#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <bit>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace parlune::cli {

namespace {

using namespace parlune::llm;

constexpr const char* usageText =
    "usage:\n"
    "  parlune-cli model info FILE\n"
    "  parlune-cli model generate FILE --prompt TEXT [--system TEXT] [--max N] [--raw] [--threads N]\n"
    "  parlune-cli model logits FILE --tokens IDS -o OUT [--threads N]\n"
    "                              (IDS: token ids separated by spaces or commas;\n"
    "                              OUT: float32 logits of every position, [positions][vocabulary])\n"
    "  parlune-cli model bench FILE [--threads N] [--prompt-tokens 128] [--gen-tokens 64] [--runs 5]\n"
    "  parlune-cli model make-test --arch llama|qwen2|qwen3|phi3|gemma3 --shape "
    "tiny|135m|0.5b|1b|1.5b|3b|3b-llama\n"
    "                              --type TYPE [--vocab VOCAB.gguf] [--untied] [--seed N] OUT\n"
    "  TYPE: f32 f16 bf16 q4_0 q4_1 q5_0 q5_1 q8_0 q2_k q3_k q4_k q5_k q6_k iq4_nl iq4_xs q4_k_m\n";

class UsageError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Options after the sub-command: `--name value` pairs, `--flag`s, and positional arguments.
class Arguments {
public:
    Arguments(const std::vector<std::string>& arguments, const std::vector<std::string>& flags) {
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            const std::string& a = arguments[i];
            if (!a.starts_with("--") && a != "-o") {
                positional_.push_back(a);
            } else if (std::find(flags.begin(), flags.end(), a) != flags.end()) {
                options_[a] = "";
            } else if (i + 1 < arguments.size()) {
                options_[a] = arguments[++i];
            } else {
                throw UsageError("option " + a + " needs a value");
            }
        }
    }

    std::optional<std::string> take(const std::string& name) {
        const auto it = options_.find(name);
        if (it == options_.end()) {
            return std::nullopt;
        }
        std::string value = it->second;
        options_.erase(it);
        return value;
    }

    bool flag(const std::string& name) { return take(name).has_value(); }

    std::int64_t number(const std::string& name, std::int64_t fallback, std::int64_t low, std::int64_t high) {
        const std::optional<std::string> text = take(name);
        if (!text) {
            return fallback;
        }
        std::size_t used = 0;
        std::int64_t value = 0;
        try {
            value = std::stoll(*text, &used);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used != text->size() || value < low || value > high) {
            throw UsageError(name + " must be a whole number from " + std::to_string(low) + " to " +
                             std::to_string(high));
        }
        return value;
    }

    std::string onlyPositional(const char* what) {
        if (positional_.size() != 1) {
            throw UsageError(std::string("expected one ") + what);
        }
        return positional_.front();
    }

    void finish() const {
        if (!options_.empty()) {
            throw UsageError("unknown option " + options_.begin()->first);
        }
    }

private:
    std::vector<std::string> positional_;
    std::map<std::string, std::string> options_;
};

int defaultThreads() {
    return PhysicalCores::defaultThreadCount();
}

double peakRssMiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_maxrss) / 1024.0;
}

double currentRssMiB() {
    std::ifstream statm("/proc/self/statm");
    long pages = 0;
    long resident = 0;
    statm >> pages >> resident;
    return static_cast<double>(resident) * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1024.0 * 1024.0);
}

std::string typeSummary(const GgufFile& file) {
    std::map<std::string, std::pair<int, std::uint64_t>> byType;
    for (const GgufTensorInfo& tensor : file.tensors()) {
        auto& entry = byType[std::string(ggmlTypeTraits(tensor.type).name)];
        ++entry.first;
        entry.second += tensor.byteSize;
    }
    std::string text;
    for (const auto& [name, entry] : byType) {
        char line[96];
        std::snprintf(line, sizeof line, "%s%s x%d (%.1f MB)", text.empty() ? "" : ", ", name.c_str(),
                      entry.first, static_cast<double>(entry.second) / 1e6);
        text += line;
    }
    return text;
}

int info(Arguments args) {
    const std::string path = args.onlyPositional("model file");
    args.finish();
    const auto file = GgufFile::open(path);
    const auto model = Model::fromFile(file);
    const ModelConfig& c = model->config();
    std::printf("file:          %s\n", printableText(path).c_str());
    if (const auto name = file->getString("general.name")) {
        std::printf("name:          %s\n", printableText(*name).c_str());
    }
    std::printf("architecture:  %s (RoPE %s, base %g", c.architectureName.c_str(),
                c.ropeLayout == RopeLayout::neox ? "neox" : "normal", c.ropeFreqBase);
    if (c.ropeScaling.kind != RopeScalingKind::none) {
        std::printf(", %s scaling x%g", c.ropeScaling.kind == RopeScalingKind::yarn ? "yarn" : "linear",
                    c.ropeScaling.factor);
    }
    if (!model->ropeFrequencyFactors().empty()) {
        std::printf(", per-pair frequency factors %g..%g", model->ropeFrequencyFactors().front(),
                    model->ropeFrequencyFactors().back());
    }
    if (c.slidingWindow > 0) {
        std::printf(", sliding window %lld in all but every %lld-th layer (base %g)",
                    static_cast<long long>(c.slidingWindow), static_cast<long long>(c.slidingWindowPeriod),
                    c.slidingRopeFreqBase);
    }
    std::printf(")\n");
    std::printf(
        "shape:         hidden %lld, layers %lld, heads %lld, kv heads %lld, head dim %lld, ffn %lld, "
        "vocabulary %lld\n",
        static_cast<long long>(c.hiddenSize), static_cast<long long>(c.layerCount),
        static_cast<long long>(c.headCount), static_cast<long long>(c.kvHeadCount),
        static_cast<long long>(c.headDim), static_cast<long long>(c.feedForwardSize),
        static_cast<long long>(c.vocabularySize));
    std::printf("output:        %s\n",
                model->tiedOutput() ? "tied to the token embedding" : "separate matrix");
    std::printf("weights:       %.1f MB: %s\n", static_cast<double>(model->weightBytes()) / 1e6,
                typeSummary(*file).c_str());
    std::printf("context:       %lld tokens\n", static_cast<long long>(c.contextLength));
    try {
        const auto tokenizer = Tokenizer::fromGguf(*file);
        const auto model_ = file->getString("tokenizer.ggml.model").value_or("?");
        const auto pre = file->getString("tokenizer.ggml.pre").value_or("default");
        std::printf("tokenizer:     %s (pre-tokenizer %s), %d tokens", printableText(model_).c_str(),
                    printableText(pre).c_str(), tokenizer->vocabularySize());
        if (const auto eos = tokenizer->eosToken()) {
            std::printf(", eos %d", *eos);
        }
        std::printf("\n");
    } catch (const std::exception& error) {
        std::printf("tokenizer:     unusable (%s)\n", printableText(error.what(), 1024).c_str());
    }
    const auto chatTemplate = file->getString("tokenizer.chat_template");
    if (!chatTemplate) {
        std::printf("chat format:   none (no chat template)\n");
    } else {
        try {
            static constexpr const char* families[] = {"chatml", "llama3", "gemma", "phi3"};
            std::printf("chat format:   %s\n",
                        families[static_cast<int>(ChatFormat::fromTemplate(*chatTemplate).family())]);
        } catch (const std::exception& error) {
            std::printf("chat format:   %s\n", printableText(error.what(), 1024).c_str());
        }
    }
    return 0;
}

std::atomic<bool> interrupted{false};

extern "C" void onInterrupt(int) {
    interrupted.store(true);
}

// The prompt as the product sends it: the chat template's turns around the user's text, which
// stays literal (a "<|im_end|>" typed in it is text, not the end of the turn). With `raw`, the
// text goes to the model as given and special-token spellings in it are those tokens.
std::vector<std::int32_t> promptTokens(const Tokenizer& tokenizer, const GgufFile& file,
                                       const std::string& system, const std::string& user, bool raw) {
    ChatPrompt prompt{user, {}};
    bool bos = tokenizer.addBosByDefault();
    if (!raw) {
        const auto chatTemplate = file.getString("tokenizer.chat_template");
        if (!chatTemplate) {
            throw UsageError("the model has no chat template; use --raw");
        }
        const ChatFormat format = ChatFormat::fromTemplate(*chatTemplate);
        prompt = format.buildPrompt(system, user);
        bos = bos && !format.includesBos();
    }
    std::vector<std::int32_t> tokens;
    if (bos && tokenizer.bosToken()) {
        tokens.push_back(*tokenizer.bosToken());
    }
    const std::vector<std::int32_t> body = tokenizer.encode(prompt.text, prompt.content);
    tokens.insert(tokens.end(), body.begin(), body.end());
    return tokens;
}

int generate(Arguments args) {
    const std::optional<std::string> prompt = args.take("--prompt");
    const std::string system = args.take("--system").value_or("");
    const std::int64_t maxTokens = args.number("--max", 256, 1, 1 << 20);
    const int threads = static_cast<int>(args.number("--threads", defaultThreads(), 1, 256));
    const bool raw = args.flag("--raw");
    const std::string path = args.onlyPositional("model file");
    args.finish();
    if (!prompt) {
        throw UsageError("generate needs --prompt TEXT");
    }
    const auto file = GgufFile::open(path);
    const auto model = Model::fromFile(file);
    std::shared_ptr<const Tokenizer> tokenizer = Tokenizer::fromGguf(*file);
    const std::vector<std::int32_t> tokens = promptTokens(*tokenizer, *file, system, *prompt, raw);

    ThreadPool pool(threads);
    GenerationSession session(model, tokenizer, pool);
    GenerationOptions options;
    options.maxNewTokens = maxTokens;
    options.stopFlag = &interrupted;
    std::signal(SIGINT, onInterrupt);
    const GenerationResult result = session.generate(tokens, options, [](std::string_view piece) {
        std::fwrite(piece.data(), 1, piece.size(), stdout);
        std::fflush(stdout);
    });
    std::signal(SIGINT, SIG_DFL);
    static constexpr const char* reasons[] = {"end of turn", "token limit", "interrupted", "context full",
                                              "no token fits the constraint"};
    std::fprintf(stderr, "\n[%zu prompt tokens at %.1f tok/s; %zu generated at %.1f tok/s; stopped: %s]\n",
                 tokens.size(), static_cast<double>(tokens.size()) / std::max(result.promptSeconds, 1e-9),
                 result.tokens.size(),
                 static_cast<double>(result.tokens.size()) / std::max(result.generationSeconds, 1e-9),
                 reasons[static_cast<int>(result.stopReason)]);
    return 0;
}

std::vector<std::int32_t> parseTokenIds(const std::string& text) {
    std::vector<std::int32_t> ids;
    std::size_t at = 0;
    while (at < text.size()) {
        if (text[at] == ' ' || text[at] == ',' || text[at] == '\n' || text[at] == '\t') {
            ++at;
            continue;
        }
        std::size_t used = 0;
        long long value = -1;
        try {
            value = std::stoll(text.substr(at), &used);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used == 0 || value < 0 || value > std::numeric_limits<std::int32_t>::max()) {
            throw UsageError("--tokens: '" + text.substr(at, 12) + "' is not a token id");
        }
        ids.push_back(static_cast<std::int32_t>(value));
        at += used;
    }
    if (ids.empty()) {
        throw UsageError("--tokens needs at least one token id");
    }
    return ids;
}

// Raw logits for comparing the engine with a reference offline: the tokens run as one batch
// and every position's row is written as little-endian float32.
int logits(Arguments args) {
    const std::optional<std::string> tokenText = args.take("--tokens");
    std::optional<std::string> out = args.take("-o");
    if (!out) {
        out = args.take("--output");
    }
    const int threads = static_cast<int>(args.number("--threads", defaultThreads(), 1, 256));
    const std::string path = args.onlyPositional("model file");
    args.finish();
    if (!tokenText || !out) {
        throw UsageError("logits needs --tokens IDS and -o OUT");
    }
    const std::vector<std::int32_t> tokens = parseTokenIds(*tokenText);
    const auto model = Model::load(path);
    ThreadPool pool(threads);
    Transformer transformer(model, pool);
    KvCache cache(model->config());
    std::vector<float> values;
    transformer.forward(tokens, cache, values, true);
    static_assert(std::endian::native == std::endian::little);
    std::ofstream file(*out, std::ios::binary | std::ios::trunc);
    file.write(reinterpret_cast<const char*>(values.data()),
               static_cast<std::streamsize>(values.size() * sizeof(float)));
    file.close();
    if (!file) {
        throw std::runtime_error("cannot write " + *out);
    }
    std::fprintf(stderr, "wrote %zu positions x %lld logits to %s\n", tokens.size(),
                 static_cast<long long>(model->config().vocabularySize), out->c_str());
    return 0;
}

struct Spread {
    double median;
    double low;
    double high;
};

Spread spread(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    const double median = n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2.0;
    return {median, values.front(), values.back()};
}

int bench(Arguments args) {
    const int threads = static_cast<int>(args.number("--threads", defaultThreads(), 1, 256));
    const std::int64_t promptCount = args.number("--prompt-tokens", 128, 1, 1 << 16);
    const std::int64_t genCount = args.number("--gen-tokens", 64, 1, 1 << 16);
    const std::int64_t runs = args.number("--runs", 5, 1, 1000);
    const std::string path = args.onlyPositional("model file");
    args.finish();

    const auto model = Model::load(path);
    const ModelConfig& c = model->config();
    if (promptCount + genCount > c.contextLength) {
        throw UsageError("--prompt-tokens plus --gen-tokens exceed the model's context");
    }
    // Through the generation loop the product uses; end-of-generation tokens are ignored so
    // every run generates exactly genCount tokens.
    ThreadPool pool(threads);
    const std::shared_ptr<const Tokenizer> tokenizer = Tokenizer::fromGguf(model->file());
    std::vector<std::int32_t> prompt(static_cast<std::size_t>(promptCount));
    const auto vocabulary = static_cast<std::uint64_t>(tokenizer->vocabularySize());
    for (std::size_t i = 0; i < prompt.size(); ++i) {
        prompt[i] = static_cast<std::int32_t>((i * 2654435761u + 17) % vocabulary);
    }
    GenerationOptions options;
    options.maxNewTokens = genCount + 1; // the first comes from the prompt's logits
    options.ignoreEndOfGeneration = true;
    std::vector<double> promptRates;
    std::vector<double> genRates;
    double generatingRss = 0.0;
    std::size_t cacheBytes = 0;
    for (std::int64_t run = -1; run < runs; ++run) { // run -1 warms caches and the page mapping
        GenerationSession session(model, tokenizer, pool);
        const GenerationResult result = session.generate(prompt, options, {});
        generatingRss = std::max(generatingRss, currentRssMiB());
        cacheBytes = session.cache().allocatedBytes();
        if (run >= 0) {
            promptRates.push_back(static_cast<double>(promptCount) / result.promptSeconds);
            genRates.push_back(static_cast<double>(genCount) / result.generationSeconds);
        }
    }
    const Spread p = spread(promptRates);
    const Spread g = spread(genRates);
    std::printf("model:       %s (%s, %.1f MB of weights)\n", path.c_str(), c.architectureName.c_str(),
                static_cast<double>(model->weightBytes()) / 1e6);
    std::printf("threads:     %d, runs: %lld (after one warm-up)\n", threads, static_cast<long long>(runs));
    std::printf("prompt %-5lld %8.1f tok/s median (min %.1f, max %.1f)\n",
                static_cast<long long>(promptCount), p.median, p.low, p.high);
    std::printf("generate %-3lld %8.1f tok/s median (min %.1f, max %.1f), weights read at %.1f GB/s\n",
                static_cast<long long>(genCount), g.median, g.low, g.high,
                g.median * static_cast<double>(model->weightBytes()) / 1e9);
    std::printf("memory:      peak RSS %.1f MiB, RSS while generating %.1f MiB, KV cache %.1f MiB\n",
                peakRssMiB(), generatingRss, static_cast<double>(cacheBytes) / (1024.0 * 1024.0));
    return 0;
}

int makeTest(Arguments args) {
    const std::string archName = args.take("--arch").value_or("llama");
    const std::string shapeName = args.take("--shape").value_or("tiny");
    const std::string typeName = args.take("--type").value_or("f32");
    const std::optional<std::string> vocab = args.take("--vocab");
    const std::int64_t seed = args.number("--seed", 1, 0, std::numeric_limits<std::int64_t>::max());
    const bool untied = args.flag("--untied");
    const std::string out = args.onlyPositional("output file");
    args.finish();

    std::optional<Architecture> architecture;
    for (const Architecture a :
         {Architecture::llama, Architecture::qwen2, Architecture::qwen3, Architecture::phi3}) {
        if (architectureName(a) == archName) {
            architecture = a;
        }
    }
    if (!architecture) {
        throw UsageError("unknown architecture '" + archName + "'");
    }
    std::optional<TestModelRecipe> recipe = TestModelRecipe::shape(shapeName, *architecture);
    if (!recipe) {
        throw UsageError("unknown shape '" + shapeName + "'");
    }
    const std::optional<TestWeightScheme> scheme = TestWeightScheme::parse(typeName);
    if (!scheme) {
        throw UsageError("unknown weight type '" + typeName + "'");
    }
    recipe->weights = *scheme;
    recipe->seed = static_cast<std::uint64_t>(seed);
    recipe->tiedOutput = !untied;
    if (vocab) {
        recipe->vocabularyFile = *vocab;
    }
    recipe->name = "random " + archName + " " + shapeName + " " + scheme->name();
    TestModelMaker::write(*recipe, out);
    std::printf("wrote %s (%s %s, %s)\n", out.c_str(), archName.c_str(), shapeName.c_str(),
                scheme->name().c_str());
    return 0;
}

int run(const std::vector<std::string>& arguments) {
    if (arguments.empty()) {
        std::fputs(usageText, stderr);
        return 2;
    }
    const std::string& sub = arguments.front();
    const std::vector<std::string> rest(arguments.begin() + 1, arguments.end());
    try {
        if (sub == "info") {
            return info(Arguments(rest, {}));
        }
        if (sub == "generate") {
            return generate(Arguments(rest, {"--raw"}));
        }
        if (sub == "logits") {
            return logits(Arguments(rest, {}));
        }
        if (sub == "bench") {
            return bench(Arguments(rest, {}));
        }
        if (sub == "make-test") {
            return makeTest(Arguments(rest, {"--untied"}));
        }
        throw UsageError("unknown model command '" + sub + "'");
    } catch (const UsageError& error) {
        std::fprintf(stderr, "parlune-cli model: %s\n%s", error.what(), usageText);
        return 2;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "parlune-cli model: %s\n", printableText(error.what(), 1024).c_str());
        return 1;
    }
}

} // namespace

CliCommand modelCommand() {
    return {"model", "model info|generate|logits|bench|make-test ...",
            "inspect, run and benchmark a GGUF model with the on-device engine", run};
}

} // namespace parlune::cli
