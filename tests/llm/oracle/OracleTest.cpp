// Compares the engine's logits with an independent NumPy forward pass of the same random F32
// model (tests/llm/oracle/forward.py, run by the system Python with Debian's NumPy).
#include "llm/model/KvCache.h"
#include "llm/model/Model.h"
#include "llm/model/Transformer.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/testing/TestModelMaker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <vector>

namespace parlune::llm {
namespace {

constexpr const char* python = "/usr/bin/python3";

bool oracleAvailable() {
    static const bool available =
        std::system((std::string(python) + " -c 'import numpy' >/dev/null 2>&1").c_str()) == 0;
    return available;
}

struct OracleCase {
    std::string name;
    TestModelRecipe recipe;
};

std::vector<OracleCase> cases() {
    std::vector<OracleCase> all;
    for (const Architecture architecture :
         {Architecture::llama, Architecture::qwen2, Architecture::qwen3, Architecture::phi3}) {
        OracleCase c{std::string(architectureName(architecture)),
                     *TestModelRecipe::shape("tiny", architecture)};
        c.recipe.seed = 7;
        all.push_back(c);
    }
    // Eight query heads over two key/value heads, an untied output, a wider head.
    OracleCase grouped{"qwen2_grouped_untied", *TestModelRecipe::shape("tiny", Architecture::qwen2)};
    grouped.recipe.hiddenSize = 128;
    grouped.recipe.headCount = 8;
    grouped.recipe.kvHeadCount = 2;
    grouped.recipe.tiedOutput = false;
    all.push_back(grouped);
    // Windows of 8 over 40 positions, every second layer global, so both kinds are checked.
    OracleCase gemma{"gemma3_sliding_window", *TestModelRecipe::shape("tiny", Architecture::gemma3)};
    gemma.recipe.layerCount = 4;
    gemma.recipe.slidingWindow = 8;
    gemma.recipe.slidingWindowPeriod = 2;
    gemma.recipe.queryKeyStdDev = 0.1;
    all.push_back(gemma);
    OracleCase wide{"llama_one_kv_head_linear_rope", *TestModelRecipe::shape("tiny", Architecture::llama)};
    wide.recipe.headCount = 2;
    wide.recipe.kvHeadCount = 1;
    wide.recipe.ropeScaling.kind = RopeScalingKind::linear;
    wide.recipe.ropeScaling.factor = 2.0;
    all.push_back(wide);
    return all;
}

// The engine's logits for `tokens`: the first `batch` as one prompt, then one token at a time,
// so both the batched and the single-token paths are checked.
std::vector<float> engineLogits(const std::filesystem::path& modelPath, std::span<const std::int32_t> tokens,
                                std::size_t batch) {
    const auto model = Model::load(modelPath);
    ThreadPool pool(2);
    Transformer transformer(model, pool);
    KvCache cache(model->config());
    std::vector<float> logits;
    transformer.forward(tokens.first(batch), cache, logits, true);
    for (std::size_t i = batch; i < tokens.size(); ++i) {
        std::vector<float> step;
        transformer.forward(tokens.subspan(i, 1), cache, step, true);
        logits.insert(logits.end(), step.begin(), step.end());
    }
    return logits;
}

std::vector<float> oracleLogits(const std::filesystem::path& modelPath, std::span<const std::int32_t> tokens,
                                std::size_t count) {
    const std::filesystem::path logitsPath = modelPath.parent_path() / "oracle.f32";
    std::string command =
        std::string(python) + " " PARLUNE_ORACLE_SCRIPT " " + modelPath.string() + " " + logitsPath.string();
    for (const std::int32_t token : tokens) {
        command += " " + std::to_string(token);
    }
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
    std::ifstream in(logitsPath, std::ios::binary);
    std::vector<float> oracle(count);
    in.read(reinterpret_cast<char*>(oracle.data()),
            static_cast<std::streamsize>(oracle.size() * sizeof(float)));
    EXPECT_EQ(in.gcount(), static_cast<std::streamsize>(oracle.size() * sizeof(float)));
    return oracle;
}

// Largest |a - b| over rows [first, last) of `vocabulary` values each.
float worstDifference(const std::vector<float>& a, const std::vector<float>& b, std::size_t vocabulary,
                      std::size_t first, std::size_t last) {
    float worst = 0.0f;
    for (std::size_t i = first * vocabulary; i < last * vocabulary; ++i) {
        worst = std::max(worst, std::abs(a[i] - b[i]));
    }
    return worst;
}

// A directory of this process's own: several test runs may share the machine.
std::filesystem::path scratchDirectory(const std::string& name) {
    std::string pattern =
        (std::filesystem::temp_directory_path() / ("parlune-oracle-" + name + "-XXXXXX")).string();
    if (::mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("cannot create a scratch directory for " + name);
    }
    return pattern;
}

class OracleTest : public ::testing::TestWithParam<OracleCase> {
protected:
    void SetUp() override {
        if (!oracleAvailable()) {
            GTEST_SKIP() << python << " with NumPy is not installed (Debian package python3-numpy)";
        }
    }
};

TEST_P(OracleTest, EngineLogitsMatchTheNumPyForwardPass) {
    const OracleCase& c = GetParam();
    const std::filesystem::path dir = scratchDirectory(c.name);
    const std::filesystem::path modelPath = dir / "model.gguf";
    TestModelMaker::write(c.recipe, modelPath);

    // Long enough that the batch's attention is split across threads, short steps are not.
    std::vector<std::int32_t> tokens;
    for (std::int32_t i = 0; i < 40; ++i) {
        tokens.push_back((i * 37 + 3) % 260);
    }
    const std::vector<float> engine = engineLogits(modelPath, tokens, 36);
    const std::vector<float> oracle = oracleLogits(modelPath, tokens, engine.size());

    float worst = 0.0f;
    float largest = 0.0f;
    for (std::size_t i = 0; i < engine.size(); ++i) {
        worst = std::max(worst, std::abs(engine[i] - oracle[i]));
        largest = std::max(largest, std::abs(oracle[i]));
    }
    std::printf("[ measured ] %s: max |engine - oracle| %.3g of logits up to %.3g\n", c.name.c_str(), worst,
                largest);
    EXPECT_LT(worst, 1e-4f) << c.name;
    EXPECT_GT(largest, 0.1f) << "logits too small to compare meaningfully";
    std::filesystem::remove_all(dir);
}

// A Llama-3.x-shaped model (base 500000, head dim 64, `rope_freqs` as the 3.2 checkpoints derive
// them, peaked attention) is as exact past position 1,000 as at position 10. Without the
// factors the late logits move far more than that bound, so the check can see them.
TEST_F(OracleTest, Llama3FrequencyFactorsHoldAtLongPositions) {
    TestModelRecipe recipe = *TestModelRecipe::shape("tiny", Architecture::llama);
    recipe.hiddenSize = 256;
    recipe.feedForwardSize = 512;
    recipe.ropeFreqBase = 500000.0;
    recipe.queryKeyStdDev = 0.1;
    recipe.seed = 11;
    recipe.ropeFrequencyFactors = llama3RopeFrequencyFactors(500000.0, 64, 32.0, 1.0, 4.0, 8192);
    const std::filesystem::path dir = scratchDirectory("llama3-rope-freqs");
    const std::filesystem::path modelPath = dir / "model.gguf";
    TestModelMaker::write(recipe, modelPath);
    recipe.ropeFrequencyFactors.clear();
    const std::filesystem::path plainPath = dir / "plain.gguf";
    TestModelMaker::write(recipe, plainPath);

    std::vector<std::int32_t> tokens;
    for (std::int32_t i = 0; i < 1010; ++i) {
        tokens.push_back((i * 97 + 5) % 250);
    }
    const std::size_t vocabulary = static_cast<std::size_t>(Model::load(modelPath)->config().vocabularySize);
    const std::vector<float> engine = engineLogits(modelPath, tokens, 1000);
    const std::vector<float> oracle = oracleLogits(modelPath, tokens, engine.size());
    const std::vector<float> withoutFactors = engineLogits(plainPath, tokens, 1000);

    const float early = worstDifference(engine, oracle, vocabulary, 0, 16);
    const float late = worstDifference(engine, oracle, vocabulary, 1000, 1010);
    const float ignored = worstDifference(withoutFactors, oracle, vocabulary, 1000, 1010);
    std::printf("[ measured ] positions 0-15: %.3g, 1000-1009: %.3g; factors ignored: %.3g\n", early, late,
                ignored);
    EXPECT_LT(early, 1e-4f);
    EXPECT_LT(late, 1e-4f);
    EXPECT_GT(ignored, 100 * 1e-4f);
    std::filesystem::remove_all(dir);
}

INSTANTIATE_TEST_SUITE_P(Models, OracleTest, ::testing::ValuesIn(cases()),
                         [](const ::testing::TestParamInfo<OracleCase>& test) { return test.param.name; });

} // namespace
} // namespace parlune::llm
