#include "GgufTestBytes.h"

#include "llm/gguf/GgufFile.h"
#include "llm/gguf/GgufWriter.h"

#include <gtest/gtest.h>

#include <limits>

namespace parlune::llm {
namespace {

using test::GgufTestBytes;

constexpr std::uint32_t kF32 = 0;
constexpr std::uint32_t kQ8_0 = 8;
constexpr std::uint32_t kTypeString = 8;
constexpr std::uint32_t kTypeArray = 9;
constexpr std::uint32_t kTypeUInt32 = 4;
constexpr std::uint32_t kTypeUInt8 = 0;
constexpr std::uint32_t kTypeBool = 7;
constexpr std::uint64_t kHuge = std::numeric_limits<std::uint64_t>::max();

// The parse must fail with a GgufError whose message contains every fragment.
void expectRejected(const std::vector<std::byte>& bytes, std::initializer_list<std::string_view> fragments) {
    try {
        GgufFile::fromBuffer(bytes, "bad.gguf");
        ADD_FAILURE() << "the file was accepted";
    } catch (const GgufError& error) {
        const std::string message = error.what();
        EXPECT_EQ(message.rfind("bad.gguf: ", 0), 0u) << message;
        for (const std::string_view fragment : fragments) {
            EXPECT_NE(message.find(fragment), std::string::npos)
                << "'" << fragment << "' missing in: " << message;
        }
    }
}

// One F32 tensor of `dims`, its data padded in place, for tensor table cases.
std::vector<std::byte> oneTensor(std::initializer_list<std::uint64_t> dims, std::uint32_t type,
                                 std::uint64_t offset, std::size_t dataBytes) {
    GgufTestBytes b;
    b.header(1, 0).tensorInfo("blk.0.attn_q.weight", dims, type, offset).padTo(32).zeros(dataBytes);
    return b.bytes;
}

TEST(GgufCorruptFileTest, HeaderProblemsAreNamed) {
    expectRejected({}, {"not a GGUF file (the file is empty)"});
    expectRejected(GgufTestBytes()
                       .text("\x7f"
                             "ELF")
                       .u32(3)
                       .u64(0)
                       .u64(0)
                       .bytes,
                   {"not a GGUF file (it starts with '\\x7fELF', not 'GGUF')"});
    expectRejected(GgufTestBytes().text("GGU").bytes, {"not a GGUF file (it starts with 'GGU'"});
    expectRejected(GgufTestBytes().header(0, 0, 1).bytes, {"version 1 is not supported"});
    expectRejected(GgufTestBytes().header(0, 0, 4).bytes, {"unsupported GGUF version 4"});
    expectRejected(GgufTestBytes().header(0, 0, 0x03000000).bytes, {"big-endian"});
    expectRejected(GgufTestBytes().text("GGUF").u32(3).u32(0).bytes,
                   {"tensor count at byte 8 is cut off by the end of the file (12 bytes)"});
    expectRejected(GgufTestBytes().text("GGUF").u32(3).u64(0).bytes,
                   {"metadata count at byte 16 is cut off"});
}

TEST(GgufCorruptFileTest, CountsLargerThanTheFileAreRefusedBeforeAnyAllocation) {
    expectRejected(GgufTestBytes().header(0, 1000).kvU32("a", 1).bytes,
                   {"metadata count 1000 is more than the remaining 17 bytes"});
    expectRejected(GgufTestBytes().header(0, kHuge).bytes, {"metadata count 18446744073709551615"});
    expectRejected(GgufTestBytes().header(std::uint64_t{1} << 62, 0).zeros(64).bytes,
                   {"tensor count 4611686018427387904 is more than the remaining 64 bytes"});
    // Plausible by size alone, yet the entries run out.
    expectRejected(GgufTestBytes().header(0, 2).kvU32("a", 1).str("b").u32(kTypeUInt32).bytes,
                   {"metadata 'b': value at byte 54 is cut off by the end of the file (54 bytes)"});
}

TEST(GgufCorruptFileTest, MalformedStringsAreRefused) {
    expectRejected(GgufTestBytes().header(0, 1).u64(100).text("general.name").bytes,
                   {"metadata entry 1 of 1: key at byte 24 claims 100 bytes, but only 12 are left"});
    expectRejected(
        GgufTestBytes().header(0, 1).str("general.name").u32(kTypeString).u64(kHuge - 7).text("x").bytes,
        {"metadata 'general.name': string value at byte 48 claims 18446744073709551608 bytes"});
    expectRejected(GgufTestBytes().header(0, 1).str("general.name").u32(kTypeString).u64(5).text("abc").bytes,
                   {"claims 5 bytes, but only 3 are left"});
    expectRejected(GgufTestBytes().header(0, 1).u64(0).u32(kTypeUInt32).u32(1).bytes, {"empty key"});
    // Control bytes in a hostile key are escaped, not echoed.
    expectRejected(GgufTestBytes().header(0, 1).str("k\n\x01").u32(99).u32(0).bytes,
                   {"metadata 'k\\x0a\\x01': unknown value type id 99"});
}

TEST(GgufCorruptFileTest, MalformedValuesAndArraysAreRefused) {
    expectRejected(GgufTestBytes().header(0, 1).str("a").u32(13).u64(0).bytes, {"unknown value type id 13"});
    expectRejected(GgufTestBytes().header(0, 1).str("flag").u32(kTypeBool).u8(2).zeros(3).bytes,
                   {"metadata 'flag': invalid bool value 2"});
    expectRejected(GgufTestBytes().header(0, 1).str("n").u32(kTypeUInt32).u8(1).bytes,
                   {"value at byte 37 is cut off"});
    expectRejected(GgufTestBytes()
                       .header(0, 1)
                       .str("a")
                       .u32(kTypeArray)
                       .u32(kTypeUInt32)
                       .u64(std::uint64_t{1} << 62)
                       .zeros(16)
                       .bytes,
                   {"array of 4611686018427387904 uint32 values", "does not fit in the 16 bytes left"});
    expectRejected(
        GgufTestBytes().header(0, 1).str("a").u32(kTypeArray).u32(kTypeString).u64(kHuge).zeros(8).bytes,
        {"array of 18446744073709551615 string values"});
    expectRejected(GgufTestBytes()
                       .header(0, 1)
                       .str("tokens")
                       .u32(kTypeArray)
                       .u32(kTypeString)
                       .u64(3)
                       .str("a")
                       .str("b")
                       .u64(kHuge)
                       .zeros(8)
                       .bytes,
                   {"metadata 'tokens': string 2 of the array", "claims 18446744073709551615 bytes"});
    expectRejected(GgufTestBytes().header(0, 1).str("a").u32(kTypeArray).u32(42).u64(0).bytes,
                   {"unknown array element type id 42"});
    expectRejected(GgufTestBytes()
                       .header(0, 1)
                       .str("a")
                       .u32(kTypeArray)
                       .u32(kTypeBool)
                       .u64(3)
                       .u8(1)
                       .u8(0)
                       .u8(7)
                       .zeros(8)
                       .bytes,
                   {"invalid bool value 7 in element 2 (must be 0 or 1)"});
}

TEST(GgufCorruptFileTest, NestedArraysAreWalkedAndTooDeepNestingIsRefused) {
    // [[1, 2], ["x"]] then a scalar after it: the walk must land exactly on the next entry.
    GgufTestBytes nested;
    nested.header(0, 2).str("nested").u32(kTypeArray).u32(kTypeArray).u64(2);
    nested.u32(kTypeUInt8).u64(2).u8(1).u8(2);
    nested.u32(kTypeString).u64(1).str("x");
    nested.kvU32("after", 77);
    const auto file = GgufFile::fromBuffer(nested.bytes);
    EXPECT_EQ(file->arrayElementType("nested"), GgufValueType::Array);
    EXPECT_EQ(file->arrayLength("nested"), 2u);
    EXPECT_FALSE(file->getIntegerArray("nested"));
    EXPECT_EQ(file->getInteger("after"), 77);

    GgufTestBytes deep;
    deep.header(0, 1).str("deep").u32(kTypeArray);
    for (int level = 0; level < 9; ++level) {
        deep.u32(kTypeArray).u64(1);
    }
    deep.u32(kTypeUInt8).u64(0).zeros(16);
    expectRejected(deep.bytes, {"metadata 'deep': arrays are nested more than 8 deep"});

    GgufTestBytes truncatedInner;
    truncatedInner.header(0, 1)
        .str("a")
        .u32(kTypeArray)
        .u32(kTypeArray)
        .u64(2)
        .u32(kTypeUInt32)
        .u64(1)
        .u32(5)
        .u32(kTypeUInt32)
        .u64(4)
        .u32(1);
    expectRejected(truncatedInner.bytes, {"array of 4 uint32 values", "does not fit"});
}

TEST(GgufCorruptFileTest, DuplicateKeysAndBadAlignmentAreRefused) {
    expectRejected(
        GgufTestBytes().header(0, 2).kvU32("llama.block_count", 2).kvU32("llama.block_count", 3).bytes,
        {"metadata 'llama.block_count': the key appears more than once"});
    expectRejected(GgufTestBytes().header(0, 1).kvU32("general.alignment", 48).bytes,
                   {"metadata 'general.alignment': 48 is not a power of two"});
    expectRejected(GgufTestBytes().header(0, 1).kvU32("general.alignment", 0).bytes,
                   {"0 is not a power of two"});
    expectRejected(GgufTestBytes().header(0, 1).kvString("general.alignment", "32").bytes,
                   {"must be an unsigned integer, not string"});
}

TEST(GgufCorruptFileTest, ImpossibleShapesAreRefusedNamingTheTensor) {
    expectRejected(GgufTestBytes().header(1, 0).str("t").u32(0).u32(kF32).u64(0).zeros(64).bytes,
                   {"tensor 't': 0 dimensions (1 to 4 are supported)"});
    expectRejected(oneTensor({1, 1, 1, 1, 1}, kF32, 0, 32), {"5 dimensions"});
    expectRejected(oneTensor({64, 0}, kF32, 0, 32), {"tensor 'blk.0.attn_q.weight': dimension 1 is 0"});
    expectRejected(oneTensor({std::uint64_t{1} << 32, std::uint64_t{1} << 32}, kF32, 0, 32),
                   {"element count of 4294967296 x 4294967296 overflows"});
    expectRejected(oneTensor({kHuge}, kF32, 0, 32), {"dimension 0 (18446744073709551615) is too large"});
    expectRejected(oneTensor({std::uint64_t{1} << 62}, kF32, 0, 32),
                   {"data size of 4611686018427387904 F32 overflows"});
    expectRejected(oneTensor({33}, kQ8_0, 0, 64),
                   {"row length 33 is not a multiple of the Q8_0 block size 32"});
    expectRejected(oneTensor({64}, 4, 0, 256), {"tensor 'blk.0.attn_q.weight': unknown element type id 4"});
    expectRejected(oneTensor({64}, 1000, 0, 256), {"unknown element type id 1000"});
}

TEST(GgufCorruptFileTest, TensorDataOutsideTheFileOrMisplacedIsRefused) {
    expectRejected(oneTensor({64}, kF32, 16, 512), {"data offset 16 is not a multiple of the alignment 32"});
    // Table ends at byte 73, so data starts at 96; 64 floats need 256 bytes, 100 are there.
    expectRejected(
        oneTensor({64}, kF32, 0, 100),
        {"tensor 'blk.0.attn_q.weight': data range 96..352 lies past the end of the file (196 bytes)"});
    expectRejected(oneTensor({8}, kF32, kHuge - 31, 32),
                   {"data offset 18446744073709551584", "lies past the end"});
    expectRejected(oneTensor({8}, kF32, 64, 32),
                   {"data offset 64", "lies past the end of the file (128 bytes)"});

    GgufTestBytes overlap;
    overlap.header(2, 0).tensorInfo("a", {16}, kF32, 0).tensorInfo("b", {8}, kF32, 32).padTo(32).zeros(96);
    expectRejected(overlap.bytes, {"tensor 'a' (data 0..64) overlaps tensor 'b' (data from 32)"});

    GgufTestBytes duplicate;
    duplicate.header(2, 0).tensorInfo("w", {8}, kF32, 0).tensorInfo("w", {8}, kF32, 32).padTo(32).zeros(64);
    expectRejected(duplicate.bytes, {"tensor 'w': the name appears more than once"});

    GgufTestBytes truncatedTable;
    truncatedTable.header(1, 0).str("w").u32(2).u64(8).u64(8).u32(kF32);
    expectRejected(truncatedTable.bytes, {"tensor 'w': data offset at byte 57 is cut off"});
}

TEST(GgufCorruptFileTest, AlignmentFromMetadataAppliesToTensorOffsets) {
    GgufTestBytes b;
    b.header(1, 1).kvU32("general.alignment", 64).tensorInfo("w", {8}, kF32, 32).padTo(64).zeros(128);
    expectRejected(b.bytes, {"data offset 32 is not a multiple of the alignment 64"});
}

// A file with every kind of section; each proper prefix of it must be refused cleanly.
std::vector<std::byte> richFile() {
    GgufWriter writer;
    writer.setString("general.architecture", "llama");
    writer.setUInt32("llama.block_count", 2);
    writer.setFloat64("f64", 0.25);
    writer.setBool("flag", true);
    writer.setStringArray("tokenizer.ggml.tokens", {"a", "", "longer token"});
    writer.setInt32Array("tokenizer.ggml.token_type", {1, 2, 3});
    writer.setFloat32Array("tokenizer.ggml.scores", {0.5f, -1.0f, 2.0f});
    writer.addTensor("token_embd.weight", {32, 2}, GgmlType::Q8_0, std::vector<std::byte>(68, std::byte{3}));
    writer.addTensor("output_norm.weight", {3}, GgmlType::F32, std::vector<std::byte>(12, std::byte{1}));
    return writer.toBytes();
}

TEST(GgufCorruptFileTest, EveryTruncationIsRefused) {
    const std::vector<std::byte> full = richFile();
    const auto file = GgufFile::fromBuffer(full);
    std::uint64_t end = 0;
    for (const GgufTensorInfo& tensor : file->tensors()) {
        end = std::max<std::uint64_t>(end, file->dataOffset() + tensor.offset + tensor.byteSize);
    }
    for (std::size_t length = 0; length < end; ++length) {
        const std::vector<std::byte> prefix(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_THROW(GgufFile::fromBuffer(prefix), GgufError) << "prefix of " << length << " bytes";
    }
}

// Flipping any single byte of the header and tables either still parses into a usable file or
// gives a GgufError; nothing else (no other exception, no out-of-bounds read under sanitizers).
TEST(GgufCorruptFileTest, SingleByteCorruptionsFailCleanly) {
    const std::vector<std::byte> full = richFile();
    const auto original = GgufFile::fromBuffer(full);
    for (std::size_t at = 0; at < original->dataOffset(); ++at) {
        for (const unsigned char value : {0x00, 0x01, 0x7f, 0x80, 0xff}) {
            std::vector<std::byte> bytes = full;
            bytes[at] = std::byte{value};
            try {
                const auto file = GgufFile::fromBuffer(std::move(bytes));
                for (const std::string_view key : file->keys()) {
                    (void)file->getString(key);
                    (void)file->getStringArray(key);
                    (void)file->getIntegerArray(key);
                    (void)file->getFloatArray(key);
                }
                for (const GgufTensorInfo& tensor : file->tensors()) {
                    EXPECT_EQ(file->tensorBytes(tensor).size(), tensor.byteSize);
                }
            } catch (const GgufError&) {
            } catch (const std::exception& other) {
                ADD_FAILURE() << "byte " << at << " = " << unsigned{value} << ": " << other.what();
            }
        }
    }
}

} // namespace
} // namespace parlune::llm
