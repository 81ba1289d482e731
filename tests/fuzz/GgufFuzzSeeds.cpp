// Writes the GGUF reader's seed corpus into the folder given as the only argument: small valid
// files covering every metadata type, nested arrays, a vocabulary, a tiny model with each block
// type and a custom alignment. Kept tiny so the fuzzer mutates structure, not bulk data.

#include "llm/gguf/GgufTestBytes.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/testing/TestModelMaker.h"

#include <filesystem>
#include <fstream>
#include <iostream>

using namespace parlune::llm;

namespace {

std::vector<std::byte> filler(GgmlType type, std::vector<std::int64_t> dims) {
    std::int64_t rows = 1;
    for (std::size_t i = 1; i < dims.size(); ++i) {
        rows *= dims[i];
    }
    std::vector<std::byte> data(*ggmlRowBytes(type, dims[0]) * static_cast<std::size_t>(rows));
    for (std::size_t i = 0; i < data.size(); ++i) {
        data[i] = static_cast<std::byte>(i * 37 + 11);
    }
    return data;
}

void addTensor(GgufWriter& writer, std::string name, std::vector<std::int64_t> dims, GgmlType type) {
    std::vector<std::byte> data = filler(type, dims);
    writer.addTensor(std::move(name), std::move(dims), type, std::move(data));
}

GgufWriter scalars() {
    GgufWriter w;
    w.setUInt8("u8", 1);
    w.setInt8("i8", -1);
    w.setUInt16("u16", 2);
    w.setInt16("i16", -2);
    w.setUInt32("u32", 3);
    w.setInt32("i32", -3);
    w.setUInt64("u64", 4);
    w.setInt64("i64", -4);
    w.setFloat32("f32", 0.5f);
    w.setFloat64("f64", 0.25);
    w.setBool("bool", true);
    w.setString("string", "text");
    w.setBoolArray("bools", {true, false});
    w.setUInt32Array("u32s", {1, 2});
    w.setInt64Array("i64s", {-1, 1});
    return w;
}

GgufWriter vocabulary() {
    GgufWriter w;
    w.setString("general.architecture", "llama");
    w.setString("tokenizer.ggml.model", "gpt2");
    w.setString("tokenizer.ggml.pre", "qwen2");
    w.setStringArray("tokenizer.ggml.tokens", {"<s>", "</s>", "a", "b", "ab", "\xc4\xa0",
                                               "\xc4\xa0"
                                               "ab"});
    w.setInt32Array("tokenizer.ggml.token_type", {3, 3, 1, 1, 1, 1, 1});
    w.setFloat32Array("tokenizer.ggml.scores", {0, 0, -1, -2, -3, -4, -5});
    w.setStringArray("tokenizer.ggml.merges", {"a b", "\xc4\xa0 ab"});
    w.setUInt32("tokenizer.ggml.bos_token_id", 0);
    w.setUInt32("tokenizer.ggml.eos_token_id", 1);
    w.setBool("tokenizer.ggml.add_bos_token", false);
    w.setString("tokenizer.chat_template", "{% for m in messages %}{{ m['content'] }}{% endfor %}");
    return w;
}

GgufWriter tinyModel() {
    GgufWriter w;
    w.setString("general.architecture", "llama");
    w.setUInt32("llama.block_count", 1);
    w.setUInt32("llama.embedding_length", 256);
    w.setFloat32("llama.attention.layer_norm_rms_epsilon", 1e-5f);
    addTensor(w, "token_embd.weight", {256, 2}, GgmlType::Q8_0);
    addTensor(w, "output_norm.weight", {256}, GgmlType::F32);
    addTensor(w, "blk.0.attn_q.weight", {256, 1}, GgmlType::Q4_K);
    addTensor(w, "blk.0.attn_k.weight", {256, 1}, GgmlType::Q6_K);
    addTensor(w, "blk.0.attn_v.weight", {32, 2}, GgmlType::Q4_0);
    addTensor(w, "blk.0.attn_output.weight", {32, 1}, GgmlType::Q5_0);
    addTensor(w, "blk.0.ffn_up.weight", {8, 2, 1}, GgmlType::F16);
    addTensor(w, "blk.0.ffn_down.weight", {4, 1, 1, 2}, GgmlType::BF16);
    return w;
}

GgufWriter aligned() {
    GgufWriter w;
    w.setUInt32("general.alignment", 64);
    addTensor(w, "a", {3}, GgmlType::F32);
    addTensor(w, "b", {32}, GgmlType::Q8_0);
    return w;
}

std::vector<std::byte> nestedArrays() {
    test::GgufTestBytes b;
    b.header(0, 2).str("nested").u32(9).u32(9).u64(2);
    b.u32(0).u64(2).u8(1).u8(2);
    b.u32(8).u64(1).str("x");
    b.kvU32("after", 7);
    return b.bytes;
}

// A whole model the engine loads, with the built-in byte-level vocabulary, as small as it goes.
GgufWriter loadableModel(Architecture architecture, GgmlType type) {
    TestModelRecipe recipe;
    recipe.architecture = architecture;
    recipe.hiddenSize = 32;
    recipe.layerCount = 1;
    recipe.headCount = 2;
    recipe.kvHeadCount = 1;
    recipe.feedForwardSize = 32;
    recipe.contextLength = 64;
    recipe.weights.type = type;
    return TestModelMaker::build(recipe);
}

void save(const std::filesystem::path& path, const std::vector<std::byte>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out) {
        throw std::runtime_error("cannot write " + path.string());
    }
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: gguf_fuzz_seeds OUTPUT_DIR\n";
        return 2;
    }
    const std::filesystem::path dir = argv[1];
    std::filesystem::create_directories(dir);
    save(dir / "scalars.gguf", scalars().toBytes());
    save(dir / "vocabulary.gguf", vocabulary().toBytes());
    save(dir / "tiny-model.gguf", tinyModel().toBytes());
    save(dir / "aligned-64.gguf", aligned().toBytes());
    save(dir / "nested-arrays.gguf", nestedArrays());
    save(dir / "empty.gguf", GgufWriter().toBytes());
    save(dir / "model-llama-q8_0.gguf", loadableModel(Architecture::llama, GgmlType::Q8_0).toBytes());
    save(dir / "model-qwen2-f16.gguf", loadableModel(Architecture::qwen2, GgmlType::F16).toBytes());
    save(dir / "model-qwen3-q4_0.gguf", loadableModel(Architecture::qwen3, GgmlType::Q4_0).toBytes());
    std::cout << "seeds written to " << dir.string() << "\n";
    return 0;
}
