// Decodes the quantised tensors of the shared fixture models, which a widely used reference
// quantiser wrote from the same weights as the F32/F16 files, and multiplies with them on every path.

#include "llm/gguf/GgufFile.h"
#include "llm/tensor/MatMul.h"
#include "llm/tensor/Quantization.h"

#include "KernelTestData.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <string>
#include <vector>

namespace parlune::llm {
namespace {

const std::filesystem::path kModels = std::filesystem::path(PARLUNE_LLM_FIXTURES) / "models";

std::vector<float> decodeTensor(const GgufFile& file, const GgufTensorInfo& tensor) {
    const std::span<const std::byte> bytes = file.tensorBytes(tensor);
    const std::int64_t cols = tensor.dims.at(0);
    const std::int64_t rows = tensor.elementCount / cols;
    const std::size_t rowBytes = *ggmlRowBytes(tensor.type, cols);
    std::vector<float> out(static_cast<std::size_t>(tensor.elementCount));
    for (std::int64_t r = 0; r < rows; ++r) {
        dequantizeRow(tensor.type, bytes.data() + r * rowBytes, out.data() + r * cols, cols);
    }
    return out;
}

struct Expectation {
    const char* quantised;
    const char* reference;
};

// Error of a whole tensor against the unquantised file, by format (N(0, 0.02) weights).
double boundFor(GgmlType type) {
    switch (type) {
    case GgmlType::F32:
        return 1e-14;
    case GgmlType::F16:
        return 1e-6;
    case GgmlType::Q8_0:
        return 1e-4;
    case GgmlType::Q6_K:
        return 1e-3;
    case GgmlType::Q5_0:
    case GgmlType::Q5_K:
        return 6e-3;
    case GgmlType::IQ4_NL:
    case GgmlType::IQ4_XS:
        return 1e-2;
    case GgmlType::Q3_K:
        return 3e-2;
    case GgmlType::Q2_K:
        return 1.1e-1;
    default:
        return 2.5e-2;
    }
}

class FixtureTensors : public ::testing::TestWithParam<Expectation> {};

TEST_P(FixtureTensors, DecodeCloseToTheUnquantisedWeights) {
    if (!std::filesystem::is_directory(kModels)) {
        GTEST_SKIP() << "model fixtures not found at " << kModels << " (they live beside the clone)";
    }
    const auto quantised = GgufFile::open(kModels / GetParam().quantised);
    const auto reference = GgufFile::open(kModels / GetParam().reference);
    std::map<GgmlType, int> checked;
    for (const GgufTensorInfo& tensor : quantised->tensors()) {
        if (!isSupportedWeightType(tensor.type))
            continue;
        const GgufTensorInfo* original = reference->findTensor(tensor.name);
        ASSERT_NE(original, nullptr) << tensor.name;
        const std::vector<float> got = decodeTensor(*quantised, tensor);
        const std::vector<float> want = decodeTensor(*reference, *original);
        ASSERT_EQ(got.size(), want.size());
        // Norm weights sit near 1 and stay F32; everything else must land within its format's error.
        EXPECT_LT(testing::nmse(want.data(), got.data(), got.size()), boundFor(tensor.type))
            << tensor.name << " " << ggmlTypeTraits(tensor.type).name;
        ++checked[tensor.type];
    }
    EXPECT_GE(checked.size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Models, FixtureTensors,
                         ::testing::Values(Expectation{"llama-tiny-f16.gguf", "llama-tiny-f32.gguf"},
                                           Expectation{"llama-tiny-Q8_0.gguf", "llama-tiny-f32.gguf"},
                                           Expectation{"llama-tiny-Q4_0.gguf", "llama-tiny-f32.gguf"},
                                           Expectation{"llama-tiny-Q6_K.gguf", "llama-tiny-f32.gguf"},
                                           Expectation{"llama-tiny-Q4_K_M.gguf", "llama-tiny-f32.gguf"},
                                           Expectation{"qwen2-tiny-Q8_0.gguf", "qwen2-tiny-f16.gguf"},
                                           Expectation{"qwen2-tiny-Q4_K_M.gguf", "qwen2-tiny-f16.gguf"},
                                           Expectation{"llama-w256-Q3_K_M.gguf", "llama-w256-f32.gguf"},
                                           Expectation{"llama-w256-Q2_K.gguf", "llama-w256-f32.gguf"},
                                           Expectation{"llama-w256-IQ4_XS.gguf", "llama-w256-f32.gguf"},
                                           Expectation{"llama-w256-IQ4_NL.gguf", "llama-w256-f32.gguf"}));

TEST(FixtureTensors, EveryPathMultipliesTheReferenceBlocksAlike) {
    if (!std::filesystem::is_directory(kModels)) {
        GTEST_SKIP() << "model fixtures not found at " << kModels << " (they live beside the clone)";
    }
    int products = 0;
    for (const char* name : {"llama-tiny-Q4_K_M.gguf", "llama-tiny-Q6_K.gguf", "qwen2-tiny-Q8_0.gguf",
                             "llama-tiny-Q4_0.gguf", "llama-tiny-f16.gguf", "llama-w256-Q2_K.gguf",
                             "llama-w256-IQ4_XS.gguf", "llama-w256-IQ4_NL.gguf"}) {
        const auto file = GgufFile::open(kModels / name);
        for (const GgufTensorInfo& tensor : file->tensors()) {
            if (!isSupportedWeightType(tensor.type) || tensor.dims.size() != 2 || tensor.dims[1] > 4096)
                continue;
            const std::int64_t cols = tensor.dims[0];
            const std::int64_t rows = tensor.dims[1];
            const WeightMatrix w{tensor.type, file->tensorBytes(tensor).data(), rows, cols,
                                 *ggmlRowBytes(tensor.type, cols)};
            const std::vector<float> xs = testing::gaussian(static_cast<std::size_t>(3 * cols), 9);
            ActivationBuffer x;
            prepareActivations(tensor.type, xs.data(), 3, cols, x);
            std::vector<float> want(3 * rows), got(3 * rows);
            matmulRowsOn(KernelPath::scalar, w, x, 0, rows, want.data(), rows);
            for (KernelPath path : {KernelPath::avx2, KernelPath::avx512}) {
                if (!kernelPathAvailable(path))
                    continue;
                matmulRowsOn(path, w, x, 0, rows, got.data(), rows);
                EXPECT_LT(testing::nmse(want.data(), got.data(), got.size()), 1e-10)
                    << name << " " << tensor.name << " " << kernelPathName(path);
            }
            ++products;
        }
    }
    EXPECT_GT(products, 10);
}

} // namespace
} // namespace parlune::llm
