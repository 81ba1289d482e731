#include "llm/testing/TestModelMaker.h"

#include "llm/gguf/GgufFile.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/tensor/Quantization.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <numbers>
#include <stdexcept>
#include <vector>

namespace parlune::llm {

namespace {

// SplitMix64 stream with Box-Muller normals: fully specified, so files are identical everywhere.
class NormalSource {
public:
    explicit NormalSource(std::uint64_t seed) : state_(seed) {}

    double next() {
        if (hasSpare_) {
            hasSpare_ = false;
            return spare_;
        }
        const double u1 = (static_cast<double>(bits() >> 11) + 1.0) * 0x1.0p-53; // (0, 1]
        const double u2 = static_cast<double>(bits() >> 11) * 0x1.0p-53;
        const double radius = std::sqrt(-2.0 * std::log(u1));
        spare_ = radius * std::sin(2.0 * std::numbers::pi * u2);
        hasSpare_ = true;
        return radius * std::cos(2.0 * std::numbers::pi * u2);
    }

private:
    std::uint64_t bits() {
        std::uint64_t z = (state_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    std::uint64_t state_;
    double spare_ = 0.0;
    bool hasSpare_ = false;
};

std::uint64_t tensorSeed(std::uint64_t seed, std::string_view name) {
    std::uint64_t hash = 0xcbf29ce484222325ull ^ seed; // FNV-1a over the name
    for (const char c : name) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3ull;
    }
    return hash;
}

struct TensorWriter {
    const TestModelRecipe& recipe;
    GgufWriter& writer;

    // rows x cols values mean + sd * N(0,1), encoded row by row.
    void add(const std::string& name, std::int64_t rows, std::int64_t cols, GgmlType type, double mean,
             double sd) {
        const std::optional<std::size_t> rowBytes = ggmlRowBytes(type, cols);
        if (!rowBytes) {
            throw std::invalid_argument("tensor " + name + ": rows of " + std::to_string(cols) +
                                        " do not fit " + std::string(ggmlTypeTraits(type).name));
        }
        NormalSource normal(tensorSeed(recipe.seed, name));
        std::vector<float> row(static_cast<std::size_t>(cols));
        std::vector<std::byte> data(*rowBytes * static_cast<std::size_t>(rows));
        for (std::int64_t r = 0; r < rows; ++r) {
            for (float& value : row) {
                value = static_cast<float>(mean + sd * normal.next());
            }
            quantizeRow(type, row.data(), data.data() + static_cast<std::size_t>(r) * *rowBytes, cols);
        }
        std::vector<std::int64_t> dims =
            rows == 1 ? std::vector<std::int64_t>{cols} : std::vector<std::int64_t>{cols, rows};
        writer.addTensor(name, std::move(dims), type, std::move(data));
    }

    void matrix(const std::string& name, std::int64_t layer, std::int64_t rows, std::int64_t cols) {
        add(name, rows, cols,
            TestModelMaker::matrixType(recipe.weights, name, layer, recipe.layerCount, cols), 0.0, 0.02);
    }
    void projection(const std::string& name, std::int64_t layer, std::int64_t rows, std::int64_t cols,
                    double sd) {
        add(name, rows, cols,
            TestModelMaker::matrixType(recipe.weights, name, layer, recipe.layerCount, cols), 0.0, sd);
    }
    void norm(const std::string& name, std::int64_t length) { add(name, 1, length, GgmlType::F32, 1.0, 0.1); }
    void bias(const std::string& name, std::int64_t length) {
        add(name, 1, length, GgmlType::F32, 0.0, 0.05);
    }
};

// The GPT-2 byte-level alphabet: printable bytes stand for themselves, the rest are shifted
// to code points from U+0100.
std::string byteToken(int byte) {
    const bool printable = (byte >= 0x21 && byte <= 0x7E) || (byte >= 0xA1 && byte <= 0xAC) || byte >= 0xAE;
    int codePoint = byte;
    if (!printable) {
        int shifted = 0;
        for (int b = 0; b < byte; ++b) {
            const bool p = (b >= 0x21 && b <= 0x7E) || (b >= 0xA1 && b <= 0xAC) || b >= 0xAE;
            shifted += p ? 0 : 1;
        }
        codePoint = 0x100 + shifted;
    }
    std::string text;
    if (codePoint < 0x80) {
        text += static_cast<char>(codePoint);
    } else {
        text += static_cast<char>(0xC0 | (codePoint >> 6));
        text += static_cast<char>(0x80 | (codePoint & 0x3F));
    }
    return text;
}

struct VocabularyTables {
    std::vector<std::string> tokens;
    std::vector<std::int32_t> types;
    std::vector<float> scores; // empty when the vocabulary has none
    bool hasTemplate = false;
};

void writeBuiltInVocabulary(GgufWriter& writer, VocabularyTables& vocabulary) {
    for (int b = 0; b < 256; ++b) {
        vocabulary.tokens.push_back(byteToken(b));
        vocabulary.types.push_back(1);
    }
    // A few merges so encoding exercises the merge loop ("Ġ" is the space).
    const std::vector<std::string> merges = {"Ġ t", "h e", "Ġt he", "i n", "Ġ a",
                                             "e r", "o n", "Ġ s",   "r e", "a t"};
    for (const std::string& merge : merges) {
        const std::size_t space = merge.find(' ');
        vocabulary.tokens.push_back(merge.substr(0, space) + merge.substr(space + 1));
        vocabulary.types.push_back(1);
    }
    const std::int32_t endOfText = static_cast<std::int32_t>(vocabulary.tokens.size());
    for (const char* special : {"<|endoftext|>", "<|im_start|>", "<|im_end|>"}) {
        vocabulary.tokens.emplace_back(special);
        vocabulary.types.push_back(3);
    }
    writer.setString("tokenizer.ggml.model", "gpt2");
    writer.setString("tokenizer.ggml.pre", "gpt-2");
    writer.setStringArray("tokenizer.ggml.merges", merges);
    writer.setUInt32("tokenizer.ggml.bos_token_id", static_cast<std::uint32_t>(endOfText));
    writer.setUInt32("tokenizer.ggml.eos_token_id", static_cast<std::uint32_t>(endOfText));
    writer.setBool("tokenizer.ggml.add_bos_token", false);
}

// Copies every `tokenizer.*` key except the token tables, which are returned for padding.
void copyVocabulary(GgufWriter& writer, const std::filesystem::path& path, VocabularyTables& vocabulary) {
    const std::shared_ptr<const GgufFile> file = GgufFile::open(path);
    for (const std::string_view keyView : file->keys()) {
        const std::string key(keyView);
        if (!key.starts_with("tokenizer.")) {
            continue;
        }
        if (key == "tokenizer.ggml.tokens") {
            const auto tokens = file->getStringArray(key);
            if (!tokens) {
                throw std::invalid_argument(path.string() + ": tokenizer.ggml.tokens is not a string array");
            }
            vocabulary.tokens.assign(tokens->begin(), tokens->end());
            continue;
        }
        if (key == "tokenizer.ggml.token_type") {
            if (const auto types = file->getIntegerArray(key)) {
                vocabulary.types.assign(types->begin(), types->end());
            }
            continue;
        }
        if (key == "tokenizer.chat_template") {
            vocabulary.hasTemplate = true;
        }
        if (key == "tokenizer.ggml.scores") {
            continue; // re-written after padding
        }
        switch (*file->valueType(key)) {
        case GgufValueType::String:
            writer.setString(key, *file->getString(key));
            break;
        case GgufValueType::Bool:
            writer.setBool(key, *file->getBool(key));
            break;
        case GgufValueType::Float32:
        case GgufValueType::Float64:
            writer.setFloat32(key, static_cast<float>(*file->getFloat(key)));
            break;
        case GgufValueType::Array:
            if (const auto strings = file->getStringArray(key)) {
                writer.setStringArray(key, std::vector<std::string>(strings->begin(), strings->end()));
            } else if (const auto integers = file->getIntegerArray(key)) {
                writer.setInt32Array(key, std::vector<std::int32_t>(integers->begin(), integers->end()));
            } else if (const auto floats = file->getFloatArray(key)) {
                writer.setFloat32Array(key, *floats);
            }
            break;
        default:
            if (const std::optional<std::int64_t> value = file->getInteger(key)) {
                writer.setUInt32(key, static_cast<std::uint32_t>(*value));
            }
            break;
        }
    }
    if (vocabulary.tokens.empty()) {
        throw std::invalid_argument(path.string() + " holds no tokenizer.ggml.tokens");
    }
    if (vocabulary.types.size() != vocabulary.tokens.size()) {
        vocabulary.types.assign(vocabulary.tokens.size(), 1);
    }
    if (auto scores = file->getFloatArray("tokenizer.ggml.scores")) {
        vocabulary.scores = std::move(*scores);
    }
}

constexpr std::string_view chatmlTemplate =
    "{% for message in messages %}{{ '<|im_start|>' + message['role'] + '\\n' + message['content'] + "
    "'<|im_end|>' + '\\n' }}{% endfor %}{% if add_generation_prompt %}{{ '<|im_start|>assistant\\n' }}{% "
    "endif %}";

} // namespace

std::optional<TestWeightScheme> TestWeightScheme::parse(std::string_view name) {
    std::string lower(name);
    for (char& c : lower) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    if (lower == "q4_k_m") {
        return TestWeightScheme{GgmlType::Q4_K, true};
    }
    static constexpr std::array types = {GgmlType::F32,  GgmlType::F16,    GgmlType::BF16,  GgmlType::Q4_0,
                                         GgmlType::Q4_1, GgmlType::Q5_0,   GgmlType::Q5_1,  GgmlType::Q8_0,
                                         GgmlType::Q2_K, GgmlType::Q3_K,   GgmlType::Q4_K,  GgmlType::Q5_K,
                                         GgmlType::Q6_K, GgmlType::IQ4_NL, GgmlType::IQ4_XS};
    for (const GgmlType type : types) {
        std::string typeName(ggmlTypeTraits(type).name);
        for (char& c : typeName) {
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
        if (typeName == lower) {
            return TestWeightScheme{type, false};
        }
    }
    return std::nullopt;
}

std::string TestWeightScheme::name() const {
    return q4kmMix ? std::string("Q4_K_M") : std::string(ggmlTypeTraits(type).name);
}

std::optional<TestModelRecipe> TestModelRecipe::shape(std::string_view name, Architecture architecture) {
    TestModelRecipe recipe;
    recipe.architecture = architecture;
    if (architecture != Architecture::llama) {
        recipe.ropeFreqBase = 1000000.0;
        recipe.rmsEpsilon = 1e-6;
    }
    if (name == "tiny") {
        return recipe;
    }
    struct Dimensions {
        std::string_view name;
        std::int64_t hidden, layers, heads, kvHeads, ffn, vocabulary, context;
    };
    // The 1-3 B shapes have widths that are multiples of 256, so Q4_K_M files use real K-quant
    // blocks throughout, as downloaded models of that size do.
    static constexpr Dimensions kShapes[] = {
        {"135m", 576, 30, 9, 3, 1536, 49152, 8192},    {"0.5b", 896, 24, 14, 2, 4864, 151936, 32768},
        {"1b", 2048, 16, 32, 8, 8192, 128256, 131072}, {"1.5b", 1536, 28, 12, 2, 8960, 151936, 32768},
        {"3b", 2048, 36, 16, 2, 11008, 151936, 32768}, {"3b-llama", 3072, 28, 24, 8, 8192, 128256, 131072},
    };
    for (const Dimensions& d : kShapes) {
        if (d.name != name) {
            continue;
        }
        recipe.hiddenSize = d.hidden;
        recipe.layerCount = d.layers;
        recipe.headCount = d.heads;
        recipe.kvHeadCount = d.kvHeads;
        recipe.feedForwardSize = d.ffn;
        recipe.vocabularySize = d.vocabulary;
        recipe.contextLength = d.context;
        return recipe;
    }
    return std::nullopt;
}

GgmlType TestModelMaker::matrixType(const TestWeightScheme& scheme, std::string_view tensorName,
                                    std::int64_t layer, std::int64_t layerCount, std::int64_t rowLength) {
    const auto fits = [&](GgmlType type) { return ggmlRowBytes(type, rowLength).has_value(); };
    if (!scheme.q4kmMix) {
        if (fits(scheme.type)) {
            return scheme.type;
        }
        return fits(GgmlType::Q8_0) ? GgmlType::Q8_0 : GgmlType::F32;
    }
    if (tensorName == "token_embd.weight") {
        return fits(GgmlType::Q8_0) ? GgmlType::Q8_0 : GgmlType::F32;
    }
    GgmlType preferred = GgmlType::Q4_K;
    const bool moreBits =
        layer < layerCount / 8 || layer >= 7 * layerCount / 8 || (layer - layerCount / 8) % 3 == 2;
    if (tensorName == "output.weight" ||
        ((tensorName.ends_with("attn_v.weight") || tensorName.ends_with("ffn_down.weight")) && moreBits)) {
        preferred = GgmlType::Q6_K;
    }
    if (fits(preferred)) {
        return preferred;
    }
    return fits(GgmlType::Q5_0) ? GgmlType::Q5_0 : GgmlType::F32;
}

GgufWriter TestModelMaker::build(const TestModelRecipe& recipe) {
    if (recipe.hiddenSize <= 0 || recipe.layerCount <= 0 || recipe.headCount <= 0 ||
        recipe.kvHeadCount <= 0 || recipe.feedForwardSize <= 0 || recipe.contextLength <= 0 ||
        recipe.hiddenSize % recipe.headCount != 0 || recipe.headCount % recipe.kvHeadCount != 0 ||
        (recipe.hiddenSize / recipe.headCount) % 2 != 0) {
        throw std::invalid_argument("inconsistent test model shape");
    }
    GgufWriter writer;
    const std::string arch(architectureName(recipe.architecture));
    writer.setString("general.architecture", arch);
    writer.setString("general.name", recipe.name);
    writer.setString("general.file_type_name", recipe.weights.name());
    writer.setUInt32(arch + ".block_count", static_cast<std::uint32_t>(recipe.layerCount));
    writer.setUInt32(arch + ".context_length", static_cast<std::uint32_t>(recipe.contextLength));
    writer.setUInt32(arch + ".embedding_length", static_cast<std::uint32_t>(recipe.hiddenSize));
    writer.setUInt32(arch + ".feed_forward_length", static_cast<std::uint32_t>(recipe.feedForwardSize));
    writer.setUInt32(arch + ".attention.head_count", static_cast<std::uint32_t>(recipe.headCount));
    writer.setUInt32(arch + ".attention.head_count_kv", static_cast<std::uint32_t>(recipe.kvHeadCount));
    writer.setFloat32(arch + ".attention.layer_norm_rms_epsilon", static_cast<float>(recipe.rmsEpsilon));
    writer.setFloat32(arch + ".rope.freq_base", static_cast<float>(recipe.ropeFreqBase));
    if (recipe.slidingWindow > 0) {
        writer.setUInt32(arch + ".attention.sliding_window",
                         static_cast<std::uint32_t>(recipe.slidingWindow));
    }
    if (recipe.slidingWindowPeriod > 0) {
        writer.setUInt32(arch + ".attention.sliding_window_pattern",
                         static_cast<std::uint32_t>(recipe.slidingWindowPeriod));
    }
    if (recipe.ropeScaling.kind != RopeScalingKind::none) {
        writer.setString(arch + ".rope.scaling.type",
                         recipe.ropeScaling.kind == RopeScalingKind::yarn ? "yarn" : "linear");
        writer.setFloat32(arch + ".rope.scaling.factor", static_cast<float>(recipe.ropeScaling.factor));
        if (recipe.ropeScaling.originalContext > 0) {
            writer.setUInt32(arch + ".rope.scaling.original_context_length",
                             static_cast<std::uint32_t>(recipe.ropeScaling.originalContext));
        }
    }

    VocabularyTables vocabulary;
    if (recipe.vocabularyFile.empty()) {
        writeBuiltInVocabulary(writer, vocabulary);
    } else {
        copyVocabulary(writer, recipe.vocabularyFile, vocabulary);
    }
    const std::int64_t vocabularySize = recipe.vocabularySize > 0
                                            ? recipe.vocabularySize
                                            : static_cast<std::int64_t>(vocabulary.tokens.size());
    if (vocabularySize < static_cast<std::int64_t>(vocabulary.tokens.size())) {
        throw std::invalid_argument("vocabulary size " + std::to_string(vocabularySize) + " is below the " +
                                    std::to_string(vocabulary.tokens.size()) + " tokens of the vocabulary");
    }
    // Padding rows exist in real checkpoints too (embedding tables rounded up). The first ones
    // carry the ChatML control tokens when the vocabulary lacks them, as chat models add them.
    std::vector<std::string> missingControls;
    for (const char* control : {"<|im_start|>", "<|im_end|>"}) {
        if (std::find(vocabulary.tokens.begin(), vocabulary.tokens.end(), control) ==
            vocabulary.tokens.end()) {
            missingControls.emplace_back(control);
        }
    }
    const auto original = static_cast<std::int64_t>(vocabulary.tokens.size());
    for (std::int64_t id = original; id < vocabularySize; ++id) {
        if (static_cast<std::size_t>(id - original) < missingControls.size()) {
            vocabulary.tokens.push_back(missingControls[static_cast<std::size_t>(id - original)]);
            vocabulary.types.push_back(3);
        } else {
            vocabulary.tokens.push_back("<|pad_" + std::to_string(id) + "|>");
            vocabulary.types.push_back(5);
        }
    }
    writer.setStringArray("tokenizer.ggml.tokens", vocabulary.tokens);
    writer.setInt32Array("tokenizer.ggml.token_type", vocabulary.types);
    if (!vocabulary.scores.empty()) {
        vocabulary.scores.resize(vocabulary.tokens.size(), 0.0f);
        writer.setFloat32Array("tokenizer.ggml.scores", vocabulary.scores);
    }
    if (!recipe.chatTemplate.empty()) {
        writer.setString("tokenizer.chat_template", recipe.chatTemplate);
    } else if (recipe.vocabularyFile.empty() || !vocabulary.hasTemplate) {
        writer.setString("tokenizer.chat_template", chatmlTemplate);
    }

    const std::int64_t hidden = recipe.hiddenSize;
    const std::int64_t headDim = hidden / recipe.headCount;
    const std::int64_t kvWidth = recipe.kvHeadCount * headDim;
    TensorWriter tensors{recipe, writer};
    tensors.matrix("token_embd.weight", 0, vocabularySize, hidden);
    for (std::int64_t l = 0; l < recipe.layerCount; ++l) {
        const std::string p = "blk." + std::to_string(l) + ".";
        tensors.norm(p + "attn_norm.weight", hidden);
        const bool fused = recipe.architecture == Architecture::phi3;
        if (fused) {
            tensors.projection(p + "attn_qkv.weight", l, hidden + 2 * kvWidth, hidden, recipe.queryKeyStdDev);
        } else {
            tensors.projection(p + "attn_q.weight", l, hidden, hidden, recipe.queryKeyStdDev);
            tensors.projection(p + "attn_k.weight", l, kvWidth, hidden, recipe.queryKeyStdDev);
            tensors.matrix(p + "attn_v.weight", l, kvWidth, hidden);
        }
        if (recipe.architecture == Architecture::qwen2) {
            tensors.bias(p + "attn_q.bias", hidden);
            tensors.bias(p + "attn_k.bias", kvWidth);
            tensors.bias(p + "attn_v.bias", kvWidth);
        }
        const bool gemma = recipe.architecture == Architecture::gemma3;
        if (recipe.architecture == Architecture::qwen3 || gemma) {
            tensors.norm(p + "attn_q_norm.weight", headDim);
            tensors.norm(p + "attn_k_norm.weight", headDim);
        }
        if (gemma) {
            tensors.norm(p + "post_attention_norm.weight", hidden);
            tensors.norm(p + "post_ffw_norm.weight", hidden);
        }
        tensors.matrix(p + "attn_output.weight", l, hidden, hidden);
        tensors.norm(p + "ffn_norm.weight", hidden);
        if (fused) {
            tensors.matrix(p + "ffn_up.weight", l, 2 * recipe.feedForwardSize, hidden);
        } else {
            tensors.matrix(p + "ffn_gate.weight", l, recipe.feedForwardSize, hidden);
            tensors.matrix(p + "ffn_up.weight", l, recipe.feedForwardSize, hidden);
        }
        tensors.matrix(p + "ffn_down.weight", l, hidden, recipe.feedForwardSize);
    }
    tensors.norm("output_norm.weight", hidden);
    if (!recipe.ropeFrequencyFactors.empty()) {
        if (static_cast<std::int64_t>(recipe.ropeFrequencyFactors.size()) != headDim / 2) {
            throw std::invalid_argument("one RoPE frequency factor per rotated pair is needed");
        }
        std::vector<std::byte> data(recipe.ropeFrequencyFactors.size() * sizeof(float));
        std::memcpy(data.data(), recipe.ropeFrequencyFactors.data(), data.size());
        writer.addTensor("rope_freqs.weight", {headDim / 2}, GgmlType::F32, std::move(data));
    }
    if (!recipe.tiedOutput) {
        tensors.matrix("output.weight", recipe.layerCount, vocabularySize, hidden);
    }
    return writer;
}

std::vector<float> llama3RopeFrequencyFactors(double base, std::int64_t ropeDims, double factor,
                                              double lowFrequencyFactor, double highFrequencyFactor,
                                              std::int64_t originalContext) {
    const auto context = static_cast<float>(originalContext);
    const float lowWavelength = context / static_cast<float>(lowFrequencyFactor);
    const float highWavelength = context / static_cast<float>(highFrequencyFactor);
    std::vector<float> factors;
    for (std::int64_t i = 0; i < ropeDims / 2; ++i) {
        const float frequency =
            std::pow(static_cast<float>(base), -2.0f * static_cast<float>(i) / static_cast<float>(ropeDims));
        const float wavelength = 2.0f * std::numbers::pi_v<float> / frequency;
        if (wavelength < highWavelength) {
            factors.push_back(1.0f);
        } else if (wavelength > lowWavelength) {
            factors.push_back(static_cast<float>(factor));
        } else {
            const float smooth = (context / wavelength - static_cast<float>(lowFrequencyFactor)) /
                                 static_cast<float>(highFrequencyFactor - lowFrequencyFactor);
            factors.push_back(1.0f / ((1.0f - smooth) / static_cast<float>(factor) + smooth));
        }
    }
    return factors;
}

void TestModelMaker::write(const TestModelRecipe& recipe, const std::filesystem::path& path) {
    build(recipe).write(path);
}

} // namespace parlune::llm
