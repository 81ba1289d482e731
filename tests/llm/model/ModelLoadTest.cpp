#include "TinyModel.h"

#include "llm/model/ModelError.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <sys/resource.h>

namespace parlune::llm {
namespace {

using testing::makeTinyModel;
using testing::tinySpec;

// Rebuilds a tiny model's bytes with one metadata key or tensor changed.
std::shared_ptr<const GgufFile> fileWith(const std::function<void(GgufWriter&)>& change,
                                         Architecture architecture = Architecture::llama) {
    GgufWriter writer = TestModelMaker::build(tinySpec(architecture));
    change(writer);
    return GgufFile::fromBuffer(writer.toBytes(), "edited model");
}

void expectModelError(const std::shared_ptr<const GgufFile>& file, const std::string& fragment) {
    try {
        Model::fromFile(file);
        FAIL() << "expected a ModelError mentioning " << fragment;
    } catch (const ModelError& error) {
        EXPECT_NE(std::string(error.what()).find(fragment), std::string::npos) << error.what();
    }
}

// Hyper-parameters, biases, norms and Gemma's activation and scaling are read right when the
// logits match an independent forward pass (OracleTest); here, what that pass does not show.
TEST(ModelLoad, WeightsStayInTheMapping) {
    TestModelRecipe recipe = tinySpec(Architecture::qwen2, GgmlType::Q8_0);
    recipe.tiedOutput = false;
    const auto model = makeTinyModel(recipe);
    const GgufFile& file = model->file();
    const auto inFile = [&](const void* p) {
        const GgufTensorInfo* embd = file.findTensor("token_embd.weight");
        const auto* base = file.tensorBytes(*embd).data() - embd->offset;
        const auto* at = static_cast<const std::byte*>(p);
        return at >= base && at < base + file.fileSize();
    };
    EXPECT_FALSE(model->tiedOutput());
    EXPECT_TRUE(inFile(model->output().data));
    EXPECT_TRUE(inFile(model->layer(0).down.data));
    EXPECT_TRUE(inFile(model->layer(0).keyBias.data()));
    EXPECT_EQ(model->layer(0).down.type, GgmlType::Q8_0);
    EXPECT_GT(model->weightBytes(), model->tokenEmbedding().rowBytes * 300);
}

TEST(ModelLoad, RejectsUnusableMetadataWithTheKeyNamed) {
    expectModelError(fileWith([](GgufWriter& w) { w.setString("general.architecture", "gpt-neo"); }),
                     "unsupported model architecture 'gpt-neo'");
    expectModelError(fileWith([](GgufWriter& w) { w.setUInt32("llama.attention.head_count_kv", 3); }),
                     "not a multiple of the key/value head count");
    expectModelError(fileWith([](GgufWriter& w) { w.setInt32("llama.block_count", -1); }),
                     "llama.block_count");
    expectModelError(fileWith([](GgufWriter& w) { w.setString("llama.rope.scaling.type", "ntk-magic"); }),
                     "unsupported RoPE scaling type");
    expectModelError(fileWith([](GgufWriter& w) { w.setString("llama.context_length", "many"); }),
                     "llama.context_length");
}

TEST(ModelLoad, RefusesWeightTypesItCannotComputeByName) {
    // A down projection (rows of 256) relabelled as IQ2_XXS, a type files carry but we do not run;
    // its blocks are smaller, so the file stays consistent.
    std::vector<std::byte> bytes = TestModelMaker::build(tinySpec(Architecture::llama)).toBytes();
    const std::string name = "blk.1.ffn_down.weight";
    const auto at = std::search(bytes.begin(), bytes.end(), name.begin(), name.end(),
                                [](std::byte b, char c) { return b == static_cast<std::byte>(c); });
    ASSERT_NE(at, bytes.end());
    const std::uint32_t type = static_cast<std::uint32_t>(GgmlType::IQ2_XXS);
    std::memcpy(&*(at + static_cast<std::ptrdiff_t>(name.size()) + 4 + 2 * 8), &type, 4);
    expectModelError(GgufFile::fromBuffer(std::move(bytes), "relabelled model"),
                     "'blk.1.ffn_down.weight' has unsupported type IQ2_XXS");
}

TEST(ModelLoad, RejectsMissingOrMisshapenTensors) {
    // A third layer announced but not present: more layers than the file has tensors for.
    expectModelError(fileWith([](GgufWriter& w) { w.setUInt32("llama.block_count", 4); }),
                     "says 4 layers, but the file holds only 20 tensors");
    // Wider feed-forward than the tensors have.
    expectModelError(fileWith([](GgufWriter& w) { w.setUInt32("llama.feed_forward_length", 512); }),
                     "'blk.0.ffn_gate.weight' has shape [64, 256], expected [64, 512]");
    // A qwen2 file without its biases.
    GgufWriter writer = TestModelMaker::build(tinySpec(Architecture::llama));
    writer.setString("general.architecture", "qwen2");
    writer.setUInt32("qwen2.block_count", 2);
    writer.setUInt32("qwen2.embedding_length", 64);
    writer.setUInt32("qwen2.feed_forward_length", 256);
    writer.setUInt32("qwen2.attention.head_count", 4);
    writer.setUInt32("qwen2.attention.head_count_kv", 2);
    writer.setUInt32("qwen2.context_length", 128);
    expectModelError(GgufFile::fromBuffer(writer.toBytes(), "no biases"), "'blk.0.attn_q.bias' is missing");
}

TEST(ModelLoad, CountsFromTheFileAreCheckedBeforeAnythingIsSizedFromThem) {
    rusage before{};
    getrusage(RUSAGE_SELF, &before);
    // Ten million layers once cost gigabytes of layer records before a tensor was looked at.
    expectModelError(fileWith([](GgufWriter& w) { w.setUInt32("llama.block_count", 10'000'000); }),
                     "says 10000000 layers, but the file holds only 20 tensors");
    expectModelError(
        fileWith([](GgufWriter& w) { w.setUInt64("llama.block_count", std::uint64_t{1} << 32); }),
        "says 4294967296 layers");
    rusage after{};
    getrusage(RUSAGE_SELF, &after);
    EXPECT_LT(after.ru_maxrss - before.ru_maxrss, 64 * 1024) << "peak memory grew by KiB";
}

TEST(ModelLoad, WidthsThatOverflowAreRefusedNotComputed) {
    // Each factor passes its own range check; their product does not fit.
    expectModelError(fileWith([](GgufWriter& w) {
                         w.setUInt64("llama.attention.head_count", std::uint64_t{1} << 32);
                         w.setUInt64("llama.attention.head_count_kv", std::uint64_t{1} << 32);
                         w.setUInt64("llama.attention.key_length", std::uint64_t{1} << 32);
                         w.setUInt64("llama.attention.value_length", std::uint64_t{1} << 32);
                         w.setUInt64("llama.rope.dimension_count", 64);
                     }),
                     "query width (heads x key length) 4294967296 x 4294967296 is too large");
    ModelConfig config;
    config.headCount = std::int64_t{1} << 40;
    config.headDim = std::int64_t{1} << 40;
    EXPECT_THROW((void)config.queryWidth(), ModelError);
}

TEST(ModelLoad, ReadsRopeScaling) {
    TestModelRecipe recipe = tinySpec(Architecture::llama);
    recipe.ropeScaling.kind = RopeScalingKind::yarn;
    recipe.ropeScaling.factor = 4.0;
    recipe.ropeScaling.originalContext = 512;
    const RopeScaling scaling = makeTinyModel(recipe)->config().ropeScaling;
    EXPECT_EQ(scaling.kind, RopeScalingKind::yarn);
    EXPECT_DOUBLE_EQ(scaling.factor, 4.0);
    EXPECT_EQ(scaling.originalContext, 512);
}

void addFloats(GgufWriter& writer, const std::string& name, const std::vector<float>& values) {
    std::vector<std::byte> bytes(values.size() * sizeof(float));
    std::memcpy(bytes.data(), values.data(), bytes.size());
    writer.addTensor(name, {static_cast<std::int64_t>(values.size())}, GgmlType::F32, std::move(bytes));
}

TEST(ModelLoad, RopeFactorsAreCheckedAndFollowTheContext) {
    // Head size 16: eight rotated pairs.
    expectModelError(
        fileWith([](GgufWriter& w) { addFloats(w, "rope_freqs.weight", std::vector<float>(8, 0.0f)); }),
        "'rope_freqs.weight' holds a factor that is not a positive number");
    expectModelError(
        fileWith([](GgufWriter& w) { addFloats(w, "rope_freqs.weight", std::vector<float>(6, 1.0f)); }),
        "'rope_freqs.weight' has shape [6], expected [8]");

    // Phi-3.5: short factors within the original context, long ones beyond it.
    const auto phi3 = [](bool withLong) {
        return fileWith(
            [withLong](GgufWriter& w) {
                w.setUInt32("phi3.rope.scaling.original_context_length", 1024);
                w.setFloat32("phi3.rope.scaling.attn_factor", 1.25f);
                addFloats(w, "rope_factors_short.weight", std::vector<float>(8, 1.5f));
                if (withLong) {
                    addFloats(w, "rope_factors_long.weight", std::vector<float>(8, 4.0f));
                }
            },
            Architecture::phi3);
    };
    const auto within = Model::fromFile(phi3(true), 1024);
    EXPECT_EQ(within->config().contextLength, 1024);
    EXPECT_EQ(within->ropeFrequencyFactors()[0], 1.5f);
    EXPECT_DOUBLE_EQ(within->config().ropeScaling.attentionFactor, 1.25);
    EXPECT_EQ(Model::fromFile(phi3(true))->ropeFrequencyFactors()[7], 4.0f); // the file's 2048
    expectModelError(phi3(false), "'rope_factors_long.weight' is missing");
}

TEST(ModelLoad, ReadsGemma3SlidingWindowDefaults) {
    EXPECT_FALSE(makeTinyModel(tinySpec(Architecture::gemma3))->config().isSlidingLayer(0))
        << "no window key: every layer global";
    TestModelRecipe recipe = tinySpec(Architecture::gemma3);
    recipe.layerCount = 6;
    recipe.slidingWindow = 32;
    const ModelConfig windowed = makeTinyModel(recipe)->config();
    EXPECT_TRUE(windowed.isSlidingLayer(0));
    EXPECT_TRUE(windowed.isSlidingLayer(4));
    EXPECT_FALSE(windowed.isSlidingLayer(5)) << "every sixth layer is global by default";
    EXPECT_DOUBLE_EQ(windowed.slidingRopeFreqBase, 10000.0);
}

TEST(ModelLoad, EmbeddingRejectsTokensOutsideTheVocabulary) {
    const auto model = makeTinyModel(tinySpec(Architecture::llama));
    std::vector<float> row(64);
    EXPECT_THROW(model->embed(-1, row.data()), ModelError);
    EXPECT_THROW(model->embed(static_cast<std::int32_t>(model->config().vocabularySize), row.data()),
                 ModelError);
    model->embed(5, row.data());
    EXPECT_NE(row[0], 0.0f);
}

} // namespace
} // namespace parlune::llm
