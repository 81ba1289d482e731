// Reads the real model and vocabulary files of the shared fixtures.

#include "llm/gguf/GgufFile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>

namespace parlune::llm {
namespace {

const std::filesystem::path kFixtures = PARLUNE_LLM_FIXTURES;

#define SKIP_WITHOUT_FIXTURES()                                                                              \
    if (!std::filesystem::is_directory(kFixtures / "models")) {                                              \
        GTEST_SKIP() << "model fixtures not found at " << kFixtures << " (they live beside the clone)";      \
    }

std::vector<std::filesystem::path> ggufFilesIn(const std::filesystem::path& dir) {
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::directory_iterator(dir)) {
        if (entry.path().extension() == ".gguf") {
            files.push_back(entry.path());
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

bool startsWith(const std::filesystem::path& path, std::string_view prefix) {
    return path.filename().string().rfind(prefix, 0) == 0;
}

// Checks every file has a coherent tokenizer and tensors that lie inside it.
void expectCoherent(const GgufFile& file, const std::string& name) {
    SCOPED_TRACE(name);
    EXPECT_EQ(file.version(), 3u);
    EXPECT_EQ(file.alignment(), 32u);
    const auto architecture = file.getString("general.architecture");
    ASSERT_TRUE(architecture);
    const auto model = file.getString("tokenizer.ggml.model");
    ASSERT_TRUE(model);
    EXPECT_TRUE(*model == "gpt2" || *model == "llama") << *model;
    const auto tokens = file.getStringArray("tokenizer.ggml.tokens");
    ASSERT_TRUE(tokens);
    EXPECT_GT(tokens->size(), 30000u);
    EXPECT_EQ(file.arrayLength("tokenizer.ggml.token_type"), tokens->size());
    const auto eos = file.getInteger("tokenizer.ggml.eos_token_id");
    ASSERT_TRUE(eos);
    EXPECT_LT(static_cast<std::size_t>(*eos), tokens->size());
    if (*model == "gpt2") {
        EXPECT_GT(file.arrayLength("tokenizer.ggml.merges").value_or(0), 40000u);
    }
    for (const GgufTensorInfo& tensor : file.tensors()) {
        EXPECT_TRUE(isSupportedWeightType(tensor.type)) << tensor.name;
        EXPECT_EQ(file.tensorBytes(tensor).size(), tensor.byteSize) << tensor.name;
    }
}

TEST(GgufConformanceTest, VocabularyFilesCarryTheirTokenizers) {
    SKIP_WITHOUT_FIXTURES();
    struct Expected {
        std::string_view file, model, pre;
        std::size_t vocabulary;
        std::int32_t probeId;
        std::string_view probeText;
    };
    const Expected expected[] = {
        {"ggml-vocab-gpt-2.gguf", "gpt2", "gpt-2", 50257, 50256, "<|endoftext|>"},
        {"ggml-vocab-starcoder.gguf", "gpt2", "starcoder", 49152, 0, "<|endoftext|>"},
        {"ggml-vocab-llama-spm.gguf", "llama", "default", 32000, 1, "<s>"},
        {"ggml-vocab-phi-3.gguf", "llama", "default", 32064, 32000, "<|endoftext|>"},
    };
    const auto files = ggufFilesIn(kFixtures / "vocab");
    EXPECT_EQ(files.size(), std::size(expected));
    for (const Expected& e : expected) {
        SCOPED_TRACE(e.file);
        const auto file = GgufFile::open(kFixtures / "vocab" / e.file);
        expectCoherent(*file, std::string(e.file));
        EXPECT_TRUE(file->tensors().empty());
        EXPECT_EQ(file->getString("tokenizer.ggml.model"), e.model);
        EXPECT_EQ(file->getString("tokenizer.ggml.pre"), e.pre);
        const auto tokens = file->getStringArray("tokenizer.ggml.tokens");
        ASSERT_TRUE(tokens);
        EXPECT_EQ(tokens->size(), e.vocabulary);
        EXPECT_EQ((*tokens)[static_cast<std::size_t>(e.probeId)], e.probeText);
        if (e.model == "llama") {
            EXPECT_EQ(file->getFloatArray("tokenizer.ggml.scores")->size(), e.vocabulary);
            EXPECT_EQ(file->getBool("tokenizer.ggml.add_bos_token"), true);
        }
    }
}

TEST(GgufConformanceTest, TinyModelsHaveTheirShapeTensorsAndTypes) {
    SKIP_WITHOUT_FIXTURES();
    const auto files = ggufFilesIn(kFixtures / "models");
    EXPECT_GE(files.size(), 11u);
    for (const auto& path : files) {
        // The second set (cut vocabularies, other architectures, types this engine lacks) is
        // checked file by file by the model conformance tests.
        if (!startsWith(path, "llama-tiny") && !startsWith(path, "qwen2-tiny")) {
            continue;
        }
        const std::string name = path.filename().string();
        SCOPED_TRACE(name);
        const auto file = GgufFile::open(path);
        expectCoherent(*file, name);
        const bool qwen = startsWith(path, "qwen2");
        const std::string arch = qwen ? "qwen2" : "llama";
        EXPECT_EQ(file->getString("general.architecture"), arch);
        EXPECT_EQ(file->getInteger(arch + ".block_count"), 2);
        EXPECT_EQ(file->getInteger(arch + ".embedding_length"), 64);
        EXPECT_EQ(file->getInteger(arch + ".feed_forward_length"), 256);
        EXPECT_EQ(file->getInteger(arch + ".attention.head_count"), 4);
        EXPECT_EQ(file->getInteger(arch + ".attention.head_count_kv"), 2);
        EXPECT_TRUE(file->getFloat(arch + ".attention.layer_norm_rms_epsilon"));
        EXPECT_EQ(file->getString("tokenizer.ggml.pre"), qwen ? "qwen2" : "smollm");

        const bool untied = name.find("untied") != std::string::npos;
        const std::size_t perLayer = qwen ? 12 : 9; // qwen2 adds q/k/v biases
        EXPECT_EQ(file->tensors().size(), 2 * perLayer + 2 + (untied ? 1 : 0));
        EXPECT_EQ(file->findTensor("output.weight") != nullptr, untied);

        const std::int64_t vocabulary = qwen ? 151936 : 49152;
        const GgufTensorInfo* embedding = file->findTensor("token_embd.weight");
        ASSERT_NE(embedding, nullptr);
        EXPECT_EQ(embedding->dims, (std::vector<std::int64_t>{64, vocabulary}));
        const GgufTensorInfo* down = file->findTensor("blk.1.ffn_down.weight");
        ASSERT_NE(down, nullptr);
        EXPECT_EQ(down->dims, (std::vector<std::int64_t>{256, 64}));
        EXPECT_EQ(file->findTensor("blk.0.attn_q.bias") != nullptr, qwen);
        EXPECT_EQ(file->findTensor("blk.0.attn_norm.weight")->type, GgmlType::F32);

        const GgufTensorInfo* query = file->findTensor("blk.0.attn_q.weight");
        ASSERT_NE(query, nullptr);
        if (name.find("-f32") != std::string::npos) {
            EXPECT_EQ(query->type, GgmlType::F32);
        } else if (name.find("-f16") != std::string::npos) {
            EXPECT_EQ(query->type, GgmlType::F16);
        } else if (name.find("Q8_0") != std::string::npos) {
            EXPECT_EQ(query->type, GgmlType::Q8_0);
        } else if (name.find("Q4_K_M") != std::string::npos) {
            // 64-wide rows are not whole K-blocks: Q5_0 stands in, ffn_down (256 wide) stays K.
            EXPECT_EQ(query->type, GgmlType::Q5_0);
            EXPECT_TRUE(down->type == GgmlType::Q4_K || down->type == GgmlType::Q6_K);
        }
    }
}

TEST(GgufConformanceTest, TensorsOfAModelTileTheDataSectionWithoutGaps) {
    SKIP_WITHOUT_FIXTURES();
    const auto file = GgufFile::open(kFixtures / "models" / "llama-tiny-f32.gguf");
    std::vector<const GgufTensorInfo*> byOffset;
    for (const GgufTensorInfo& tensor : file->tensors()) {
        byOffset.push_back(&tensor);
    }
    std::sort(byOffset.begin(), byOffset.end(), [](auto* a, auto* b) { return a->offset < b->offset; });
    std::uint64_t expected = 0;
    for (const GgufTensorInfo* tensor : byOffset) {
        EXPECT_EQ(tensor->offset, expected) << tensor->name;
        expected = (tensor->offset + tensor->byteSize + 31) / 32 * 32;
    }
    EXPECT_EQ(file->dataOffset() + expected, file->fileSize());
    // F32 norm weights are 1 + N(0, 0.1): a plausibility check that the views point at weights.
    const GgufTensorInfo* norm = file->findTensor("output_norm.weight");
    ASSERT_NE(norm, nullptr);
    const auto bytes = file->tensorBytes(*norm);
    const auto* values = reinterpret_cast<const float*>(bytes.data());
    double sum = 0;
    for (std::int64_t i = 0; i < norm->elementCount; ++i) {
        sum += values[i];
    }
    EXPECT_NEAR(sum / static_cast<double>(norm->elementCount), 1.0, 0.1);
}

} // namespace
} // namespace parlune::llm
