// Compares the engine's logits with an independent NumPy forward pass of the same random F32
// model (tests/llm/oracle/forward.py, run by the system Python with Debian's NumPy).
#include "llm/model/KvCache.h"
#include "llm/model/Model.h"
#include "llm/model/Transformer.h"
#include "llm/runtime/ThreadPool.h"
#include "llm/testing/TestModelMaker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
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
    for (const Architecture architecture : {Architecture::llama, Architecture::qwen2, Architecture::qwen3}) {
        OracleCase c{std::string(architectureName(architecture)), *TestModelRecipe::shape("tiny", architecture)};
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
    OracleCase wide{"llama_one_kv_head_linear_rope", *TestModelRecipe::shape("tiny", Architecture::llama)};
    wide.recipe.headCount = 2;
    wide.recipe.kvHeadCount = 1;
    wide.recipe.ropeScaling.kind = RopeScalingKind::linear;
    wide.recipe.ropeScaling.factor = 2.0;
    all.push_back(wide);
    return all;
}

class OracleTest : public ::testing::TestWithParam<OracleCase> {};

TEST_P(OracleTest, EngineLogitsMatchTheNumPyForwardPass) {
    if (!oracleAvailable()) {
        GTEST_SKIP() << python << " with NumPy is not installed (Debian package python3-numpy)";
    }
    const OracleCase& c = GetParam();
    const std::filesystem::path dir = std::filesystem::temp_directory_path() / ("parlune-oracle-" + c.name);
    std::filesystem::create_directories(dir);
    const std::filesystem::path modelPath = dir / "model.gguf";
    const std::filesystem::path logitsPath = dir / "oracle.f32";
    TestModelMaker::write(c.recipe, modelPath);

    const auto model = Model::load(modelPath);
    // Long enough that the batch's attention is split across threads, short steps are not.
    std::vector<std::int32_t> tokens;
    for (std::int32_t i = 0; i < 40; ++i) {
        tokens.push_back((i * 37 + 3) % 260);
    }
    const std::size_t batch = 36;
    ThreadPool pool(2);
    Transformer transformer(model, pool);
    KvCache cache(model->config());
    std::vector<float> engine;
    // A prompt batch followed by single-token steps: both paths are checked.
    transformer.forward(std::span(tokens).first(batch), cache, engine, true);
    for (std::size_t i = batch; i < tokens.size(); ++i) {
        std::vector<float> step;
        transformer.forward(std::span(tokens).subspan(i, 1), cache, step, true);
        engine.insert(engine.end(), step.begin(), step.end());
    }

    std::string command = std::string(python) + " " PARLUNE_ORACLE_SCRIPT " " + modelPath.string() + " " +
                          logitsPath.string();
    for (const std::int32_t token : tokens) {
        command += " " + std::to_string(token);
    }
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    std::ifstream in(logitsPath, std::ios::binary);
    std::vector<float> oracle(engine.size());
    in.read(reinterpret_cast<char*>(oracle.data()), static_cast<std::streamsize>(oracle.size() * sizeof(float)));
    ASSERT_EQ(in.gcount(), static_cast<std::streamsize>(oracle.size() * sizeof(float)));

    float worst = 0.0f;
    float largest = 0.0f;
    for (std::size_t i = 0; i < engine.size(); ++i) {
        worst = std::max(worst, std::abs(engine[i] - oracle[i]));
        largest = std::max(largest, std::abs(oracle[i]));
    }
    std::printf("[ measured ] %s: max |engine - oracle| %.3g of logits up to %.3g\n", c.name.c_str(), worst, largest);
    EXPECT_LT(worst, 1e-4f) << c.name;
    EXPECT_GT(largest, 0.1f) << "logits too small to compare meaningfully";
    std::filesystem::remove_all(dir);
}

INSTANTIATE_TEST_SUITE_P(Models, OracleTest, ::testing::ValuesIn(cases()),
                         [](const ::testing::TestParamInfo<OracleCase>& test) { return test.param.name; });

} // namespace
} // namespace parlune::llm
