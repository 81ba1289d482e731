#include "llm/gguf/GgufFile.h"
#include "llm/gguf/GgufWriter.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>

namespace parlune::llm {
namespace {

using namespace std::string_view_literals;

std::vector<std::byte> patternBytes(std::size_t count, unsigned seed) {
    std::vector<std::byte> data(count);
    for (std::size_t i = 0; i < count; ++i) {
        data[i] = static_cast<std::byte>((i * 131 + seed * 7 + 1) & 0xff);
    }
    return data;
}

class TempDir {
public:
    TempDir() {
        std::string pattern = (std::filesystem::temp_directory_path() / "parlune-gguf-XXXXXX").string();
        path_ = ::mkdtemp(pattern.data());
    }
    ~TempDir() { std::filesystem::remove_all(path_); }
    const std::filesystem::path& path() const { return path_; }

private:
    std::filesystem::path path_;
};

class GgufRoundTripTest : public ::testing::Test {
protected:
    GgufWriter writer;
};

TEST_F(GgufRoundTripTest, ScalarsOfEveryTypeReadBackWithTheirTypes) {
    writer.setString("general.architecture", "llama");
    writer.setUInt8("u8", 250);
    writer.setInt8("i8", -7);
    writer.setUInt16("u16", 65000);
    writer.setInt16("i16", -30000);
    writer.setUInt32("u32", 4000000000u);
    writer.setInt32("i32", -2000000000);
    writer.setUInt64("u64.small", 1ull << 40);
    writer.setUInt64("u64.huge", std::numeric_limits<std::uint64_t>::max());
    writer.setInt64("i64", std::numeric_limits<std::int64_t>::min());
    writer.setFloat32("f32", 1e-5f);
    writer.setFloat64("f64", 10000.5);
    writer.setBool("yes", true);
    writer.setBool("no", false);
    writer.setString("text", std::string_view("a\0b \xc3\xa9", 6));
    writer.setString("empty", "");

    const auto file = GgufFile::fromBuffer(writer.toBytes());
    EXPECT_EQ(file->version(), 3u);
    EXPECT_EQ(file->alignment(), 32u);
    EXPECT_TRUE(file->tensors().empty());

    EXPECT_EQ(file->getString("general.architecture"), "llama");
    EXPECT_EQ(file->getInteger("u8"), 250);
    EXPECT_EQ(file->getInteger("i8"), -7);
    EXPECT_EQ(file->getInteger("u16"), 65000);
    EXPECT_EQ(file->getInteger("i16"), -30000);
    EXPECT_EQ(file->getInteger("u32"), 4000000000ll);
    EXPECT_EQ(file->getInteger("i32"), -2000000000);
    EXPECT_EQ(file->getInteger("u64.small"), 1ll << 40);
    EXPECT_EQ(file->getInteger("u64.huge"), std::nullopt) << "not representable as int64";
    EXPECT_EQ(file->valueType("u64.huge"), GgufValueType::UInt64);
    EXPECT_EQ(file->getInteger("i64"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(file->getFloat("f32"), static_cast<double>(1e-5f));
    EXPECT_EQ(file->getFloat("f64"), 10000.5);
    EXPECT_EQ(file->getBool("yes"), true);
    EXPECT_EQ(file->getBool("no"), false);
    EXPECT_EQ(file->getString("text"), std::string_view("a\0b \xc3\xa9", 6));
    EXPECT_EQ(file->getString("empty"), "");
}

TEST_F(GgufRoundTripTest, GettersRefuseOtherTypesAndMissingKeys) {
    writer.setInt32("n", 5);
    writer.setFloat32("x", 0.5f);
    writer.setString("s", "5");
    writer.setInt32Array("a", {1, 2});
    const auto file = GgufFile::fromBuffer(writer.toBytes());

    EXPECT_FALSE(file->hasKey("missing"));
    EXPECT_FALSE(file->valueType("missing"));
    EXPECT_FALSE(file->getInteger("missing"));
    EXPECT_FALSE(file->getFloat("n")) << "integers are not floats";
    EXPECT_FALSE(file->getInteger("x"));
    EXPECT_FALSE(file->getInteger("s"));
    EXPECT_FALSE(file->getString("n"));
    EXPECT_FALSE(file->getBool("n"));
    EXPECT_FALSE(file->getInteger("a"));
    EXPECT_FALSE(file->getStringArray("a"));
    EXPECT_FALSE(file->getFloatArray("a"));
    EXPECT_FALSE(file->getIntegerArray("n")) << "a scalar is not an array";
    EXPECT_FALSE(file->arrayLength("n"));
    EXPECT_EQ(file->arrayLength("a"), 2u);
    EXPECT_EQ(file->arrayElementType("a"), GgufValueType::Int32);
}

TEST_F(GgufRoundTripTest, ArraysReadBackElementForElement) {
    const std::vector<std::string> tokens = {"<s>", "", "\xc4\xa0the", std::string("nul\0inside", 10), "end"};
    writer.setStringArray("tokenizer.ggml.tokens", tokens);
    writer.setInt32Array("tokenizer.ggml.token_type", {1, -3, 2147483647});
    writer.setUInt32Array("u32s", {0u, 4294967295u});
    writer.setInt64Array("i64s", {-1, std::numeric_limits<std::int64_t>::max()});
    writer.setFloat32Array("tokenizer.ggml.scores", {-1.5f, 0.0f, 3.25e7f});
    writer.setBoolArray("flags", {true, false, true});
    writer.setStringArray("no.strings", {});
    writer.setFloat32Array("no.floats", {});
    const auto file = GgufFile::fromBuffer(writer.toBytes());

    EXPECT_EQ(file->getStringArray("tokenizer.ggml.tokens"),
              std::vector<std::string_view>(tokens.begin(), tokens.end()));
    EXPECT_EQ(file->getIntegerArray("tokenizer.ggml.token_type"),
              (std::vector<std::int64_t>{1, -3, 2147483647}));
    EXPECT_EQ(file->getIntegerArray("u32s"), (std::vector<std::int64_t>{0, 4294967295}));
    EXPECT_EQ(file->getIntegerArray("i64s"),
              (std::vector<std::int64_t>{-1, std::numeric_limits<std::int64_t>::max()}));
    EXPECT_EQ(file->getFloatArray("tokenizer.ggml.scores"), (std::vector<float>{-1.5f, 0.0f, 3.25e7f}));
    EXPECT_EQ(file->arrayElementType("flags"), GgufValueType::Bool);
    EXPECT_EQ(file->arrayLength("flags"), 3u);
    EXPECT_EQ(file->getStringArray("no.strings"), std::vector<std::string_view>{});
    EXPECT_EQ(file->getFloatArray("no.floats"), std::vector<float>{});
}

TEST_F(GgufRoundTripTest, KeysKeepFirstSetOrderAndSettingAgainReplacesTheValue) {
    writer.setString("b", "first");
    writer.setUInt32("a", 1);
    writer.setFloat32("b", 2.0f);
    const auto file = GgufFile::fromBuffer(writer.toBytes());
    EXPECT_EQ(file->keys(), (std::vector<std::string_view>{"b", "a"}));
    EXPECT_EQ(file->valueType("b"), GgufValueType::Float32);
    EXPECT_EQ(file->getFloat("b"), 2.0);
}

TEST_F(GgufRoundTripTest, TensorsAreAlignedAndTheirBytesComeBackUnchanged) {
    writer.setString("general.architecture", "llama");
    const auto f16Data = patternBytes(10, 1); // 5 halves: forces padding before the next tensor
    const auto q8Data = patternBytes(2 * 68, 2);
    const auto f32Data = patternBytes(4 * 3 * 4, 3);
    const auto q81Data = patternBytes(36, 4);
    writer.addTensor("norm.weight", {5}, GgmlType::F16, f16Data);
    writer.addTensor("blk.0.attn_q.weight", {64, 2}, GgmlType::Q8_0, q8Data);
    writer.addTensor("cube", {4, 3, 1, 1}, GgmlType::F32, f32Data);
    writer.addTensor("legacy", {32}, GgmlType::Q8_1, q81Data);
    const auto file = GgufFile::fromBuffer(writer.toBytes());

    ASSERT_EQ(file->tensors().size(), 4u);
    EXPECT_EQ(file->dataOffset() % 32, 0u);
    const GgufTensorInfo* q = file->findTensor("blk.0.attn_q.weight");
    ASSERT_NE(q, nullptr);
    EXPECT_EQ(q->dims, (std::vector<std::int64_t>{64, 2}));
    EXPECT_EQ(q->type, GgmlType::Q8_0);
    EXPECT_EQ(q->elementCount, 128);
    EXPECT_EQ(q->byteSize, 136u);
    EXPECT_EQ(q->offset, 32u) << "10 bytes of F16 padded to the alignment";
    const auto qBytes = file->tensorBytes(*q);
    EXPECT_TRUE(std::equal(qBytes.begin(), qBytes.end(), q8Data.begin(), q8Data.end()));

    const GgufTensorInfo* cube = file->findTensor("cube");
    ASSERT_NE(cube, nullptr);
    EXPECT_EQ(cube->dims, (std::vector<std::int64_t>{4, 3, 1, 1}));
    EXPECT_EQ(cube->elementCount, 12);
    const auto cubeBytes = file->tensorBytes(*cube);
    EXPECT_TRUE(std::equal(cubeBytes.begin(), cubeBytes.end(), f32Data.begin(), f32Data.end()));

    const GgufTensorInfo* legacy = file->findTensor("legacy");
    ASSERT_NE(legacy, nullptr);
    EXPECT_FALSE(isSupportedWeightType(legacy->type)) << "known but unsupported types still load";
    EXPECT_EQ(file->findTensor("blk.0.attn_k.weight"), nullptr);
    for (const GgufTensorInfo& tensor : file->tensors()) {
        EXPECT_EQ(tensor.offset % 32, 0u) << tensor.name;
    }
}

TEST_F(GgufRoundTripTest, TensorBytesOfAForeignDescriptionAreEmpty) {
    writer.addTensor("w", {8}, GgmlType::F32, patternBytes(32, 0));
    const auto file = GgufFile::fromBuffer(writer.toBytes());
    GgufTensorInfo foreign = file->tensors()[0];
    foreign.offset = 1ull << 40;
    EXPECT_TRUE(file->tensorBytes(foreign).empty());
    foreign.offset = 0;
    foreign.byteSize = std::numeric_limits<std::size_t>::max();
    EXPECT_TRUE(file->tensorBytes(foreign).empty());
}

TEST_F(GgufRoundTripTest, ACustomAlignmentIsHonouredByWriterAndReader) {
    writer.setUInt32("general.alignment", 256);
    writer.addTensor("a", {3}, GgmlType::F32, patternBytes(12, 5));
    writer.addTensor("b", {32}, GgmlType::Q4_0, patternBytes(18, 6));
    const auto bytes = writer.toBytes();
    const auto file = GgufFile::fromBuffer(bytes);
    EXPECT_EQ(file->alignment(), 256u);
    EXPECT_EQ(file->dataOffset() % 256, 0u);
    EXPECT_EQ(file->findTensor("b")->offset, 256u);
    EXPECT_EQ(bytes.size() % 256, 0u);

    GgufWriter bad;
    bad.setUInt32("general.alignment", 48);
    EXPECT_THROW(bad.toBytes(), std::invalid_argument);
    GgufWriter wrongType;
    wrongType.setString("general.alignment", "32");
    EXPECT_THROW(wrongType.toBytes(), std::invalid_argument);
}

TEST_F(GgufRoundTripTest, VersionTwoFilesReadLikeVersionThree) {
    writer.setUInt32("llama.block_count", 2);
    auto bytes = writer.toBytes();
    bytes[4] = std::byte{2};
    const auto file = GgufFile::fromBuffer(bytes);
    EXPECT_EQ(file->version(), 2u);
    EXPECT_EQ(file->getInteger("llama.block_count"), 2);
}

TEST_F(GgufRoundTripTest, WriterRefusesTensorsThatDoNotMatchTheirShape) {
    EXPECT_THROW(writer.addTensor("short", {4}, GgmlType::F32, patternBytes(15, 0)), std::invalid_argument);
    EXPECT_THROW(writer.addTensor("partial-block", {33}, GgmlType::Q8_0, patternBytes(34, 0)),
                 std::invalid_argument);
    EXPECT_THROW(writer.addTensor("zero", {0}, GgmlType::F32, {}), std::invalid_argument);
    EXPECT_THROW(writer.addTensor("five", {1, 1, 1, 1, 1}, GgmlType::F32, patternBytes(4, 0)),
                 std::invalid_argument);
    EXPECT_THROW(writer.addTensor("", {1}, GgmlType::F32, patternBytes(4, 0)), std::invalid_argument);
    writer.addTensor("ok", {1}, GgmlType::F32, patternBytes(4, 0));
    EXPECT_THROW(writer.addTensor("ok", {1}, GgmlType::F32, patternBytes(4, 0)), std::invalid_argument);
}

TEST_F(GgufRoundTripTest, FilesOnDiskAreMappedAndTensorsAlignedInMemory) {
    const TempDir dir;
    writer.setString("general.architecture", "qwen2");
    writer.setStringArray("tokenizer.ggml.tokens", {"a", "b"});
    const auto data = patternBytes(64 * 34 / 32 * 3, 9);
    writer.addTensor("odd", {7}, GgmlType::F16, patternBytes(14, 8));
    writer.addTensor("w", {64, 3}, GgmlType::Q8_0, data);
    const auto path = dir.path() / "model.gguf";
    writer.write(path);

    std::ifstream in(path, std::ios::binary);
    std::vector<char> onDisk((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto inMemory = writer.toBytes();
    ASSERT_EQ(onDisk.size(), inMemory.size());
    EXPECT_EQ(std::memcmp(onDisk.data(), inMemory.data(), inMemory.size()), 0);

    const auto file = GgufFile::open(path);
    EXPECT_EQ(file->fileSize(), inMemory.size());
    EXPECT_EQ(file->source(), path.string());
    EXPECT_EQ(file->getString("general.architecture"), "qwen2");
    const GgufTensorInfo* w = file->findTensor("w");
    ASSERT_NE(w, nullptr);
    const auto bytes = file->tensorBytes(*w);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(bytes.data()) % 32, 0u);
    EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), data.begin(), data.end()));
}

TEST_F(GgufRoundTripTest, OpenNamesThePathAndTheReasonWhenTheFileCannotBeRead) {
    const TempDir dir;
    const auto missing = dir.path() / "missing.gguf";
    try {
        GgufFile::open(missing);
        FAIL() << "expected a GgufError";
    } catch (const GgufError& error) {
        EXPECT_NE(std::string(error.what()).find(missing.string()), std::string::npos) << error.what();
        EXPECT_NE(std::string(error.what()).find("No such file"), std::string::npos) << error.what();
    }
    // What is not a regular file: MappedFileTest.
    const auto empty = dir.path() / "empty.gguf";
    std::ofstream(empty).close();
    try {
        GgufFile::open(empty);
        FAIL() << "expected a GgufError";
    } catch (const GgufError& error) {
        EXPECT_NE(std::string(error.what()).find("not a GGUF file"), std::string::npos) << error.what();
    }
    EXPECT_THROW(GgufWriter().write(dir.path() / "no-such-dir" / "x.gguf"), GgufError);
}

} // namespace
} // namespace parlune::llm
