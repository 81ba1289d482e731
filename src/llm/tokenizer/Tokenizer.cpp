#include "llm/tokenizer/Tokenizer.h"

#include "llm/gguf/GgufFile.h"
#include "llm/tokenizer/ByteLevelBpe.h"
#include "llm/tokenizer/PreTokenizer.h"
#include "llm/tokenizer/SentencePieceBpe.h"

#include <algorithm>
#include <stdexcept>

namespace parlune::llm {

namespace {

// Texts of the end-of-turn tokens of the chat families we format for.
constexpr std::string_view kEndOfTurnTexts[] = {"<|im_end|>", "<|eot_id|>",    "<|eom_id|>",
                                                "<|end|>",    "<end_of_turn>", "<|endoftext|>"};

std::optional<std::int32_t> checkedId(std::optional<std::int32_t> id, const Vocabulary& vocabulary,
                                      const char* name, bool required) {
    if (!id || vocabulary.contains(*id))
        return id;
    if (!required)
        return std::nullopt; // some files name a padding or unknown id past the end; it is unused
    throw TokenizerError(std::string("the ") + name + " token id " + std::to_string(*id) +
                         " is outside the vocabulary of " + std::to_string(vocabulary.size()) + " tokens");
}

std::optional<std::int32_t> optionalId(const GgufFile& file, std::string_view key) {
    if (!file.hasKey(key))
        return std::nullopt;
    const auto value = file.getInteger(key);
    if (!value)
        throw TokenizerError(std::string(key) + " is not an integer");
    // Some converters write -1 (or its unsigned spelling) for "none".
    if (*value < 0 || *value == 0xFFFFFFFF)
        return std::nullopt;
    if (*value > INT32_MAX)
        throw TokenizerError(std::string(key) + " is out of range");
    return static_cast<std::int32_t>(*value);
}

std::optional<bool> optionalBool(const GgufFile& file, std::string_view key) {
    if (!file.hasKey(key))
        return std::nullopt;
    const auto value = file.getBool(key);
    if (!value)
        throw TokenizerError(std::string(key) + " is not a boolean");
    return value;
}

std::vector<std::string> stringArray(const GgufFile& file, std::string_view key, bool required) {
    if (!file.hasKey(key)) {
        if (required)
            throw TokenizerError(std::string("the model file has no ") + std::string(key));
        return {};
    }
    const auto values = file.getStringArray(key);
    if (!values)
        throw TokenizerError(std::string(key) + " is not an array of strings");
    return {values->begin(), values->end()};
}

} // namespace

std::unique_ptr<Tokenizer> Tokenizer::fromGguf(const GgufFile& file) {
    TokenizerConfig config;
    const auto model = file.getString("tokenizer.ggml.model");
    if (!model)
        throw TokenizerError("the model file has no tokenizer.ggml.model");
    config.model = *model;
    config.pre = file.getString("tokenizer.ggml.pre").value_or("default");
    config.tokens = stringArray(file, "tokenizer.ggml.tokens", true);
    if (file.hasKey("tokenizer.ggml.token_type")) {
        const auto types = file.getIntegerArray("tokenizer.ggml.token_type");
        if (!types)
            throw TokenizerError("tokenizer.ggml.token_type is not an array of integers");
        config.tokenTypes.reserve(types->size());
        for (const std::int64_t type : *types)
            config.tokenTypes.push_back(static_cast<std::int32_t>(std::clamp<std::int64_t>(type, -1, 127)));
    }
    if (file.hasKey("tokenizer.ggml.scores")) {
        auto scores = file.getFloatArray("tokenizer.ggml.scores");
        if (!scores)
            throw TokenizerError("tokenizer.ggml.scores is not an array of numbers");
        config.scores = std::move(*scores);
    }
    config.merges = stringArray(file, "tokenizer.ggml.merges", config.model == "gpt2");
    config.bos = optionalId(file, "tokenizer.ggml.bos_token_id");
    config.eos = optionalId(file, "tokenizer.ggml.eos_token_id");
    config.eot = optionalId(file, "tokenizer.ggml.eot_token_id");
    config.eom = optionalId(file, "tokenizer.ggml.eom_token_id");
    config.padding = optionalId(file, "tokenizer.ggml.padding_token_id");
    config.unknown = optionalId(file, "tokenizer.ggml.unknown_token_id");
    config.addBos = optionalBool(file, "tokenizer.ggml.add_bos_token");
    config.addSpacePrefix = optionalBool(file, "tokenizer.ggml.add_space_prefix");
    return fromConfig(std::move(config));
}

Tokenizer::Tokenizer(std::unique_ptr<Vocabulary> vocabulary, std::unique_ptr<TokenModel> model)
    : vocabulary_(std::move(vocabulary)), model_(std::move(model)) {}

Tokenizer::~Tokenizer() = default;

std::unique_ptr<Tokenizer> Tokenizer::fromConfig(TokenizerConfig config) {
    auto vocabulary =
        std::make_unique<Vocabulary>(std::move(config.tokens), config.tokenTypes, std::move(config.scores));
    const auto unknown = checkedId(config.unknown, *vocabulary, "unknown", false);
    std::unique_ptr<TokenModel> model;
    bool defaultAddBos = false;
    if (config.model == "gpt2") {
        const PreTokenizerKind pre = PreTokenizer::kindForName(config.pre);
        model =
            std::make_unique<ByteLevelBpe>(*vocabulary, config.merges, pre, pre == PreTokenizerKind::llama3);
    } else if (config.model == "llama") {
        model =
            std::make_unique<SentencePieceBpe>(*vocabulary, config.addSpacePrefix.value_or(true), unknown);
        defaultAddBos = true;
    } else {
        throw TokenizerError("unsupported tokenizer model \"" + config.model + "\"");
    }
    std::unique_ptr<Tokenizer> tokenizer(new Tokenizer(std::move(vocabulary), std::move(model)));
    const Vocabulary& vocab = *tokenizer->vocabulary_;
    tokenizer->bos_ = checkedId(config.bos, vocab, "beginning-of-sequence", true);
    tokenizer->eos_ = checkedId(config.eos, vocab, "end-of-sequence", true);
    tokenizer->eot_ = checkedId(config.eot, vocab, "end-of-turn", true);
    tokenizer->eom_ = checkedId(config.eom, vocab, "end-of-message", true);
    tokenizer->padding_ = checkedId(config.padding, vocab, "padding", false);
    tokenizer->addBos_ = config.addBos.value_or(defaultAddBos) && tokenizer->bos_.has_value();
    tokenizer->indexSpecialTokens();
    return tokenizer;
}

void Tokenizer::indexSpecialTokens() {
    for (const auto& id : {eos_, eot_, eom_})
        if (id)
            endOfGeneration_.push_back(*id);
    for (const std::string_view text : kEndOfTurnTexts)
        if (const auto id = vocabulary_->find(text))
            endOfGeneration_.push_back(*id);
    std::sort(endOfGeneration_.begin(), endOfGeneration_.end());
    endOfGeneration_.erase(std::unique(endOfGeneration_.begin(), endOfGeneration_.end()),
                           endOfGeneration_.end());

    for (std::int32_t id = 0; id < vocabulary_->size(); ++id) {
        const TokenType type = vocabulary_->type(id);
        const std::string& text = vocabulary_->text(id);
        if ((type == TokenType::control || type == TokenType::userDefined) && !text.empty())
            specialByFirstByte_[static_cast<unsigned char>(text[0])].push_back(id);
        // Some vocabularies mark their padding slots unknown rather than unused.
        const bool structural = type == TokenType::control || type == TokenType::unused ||
                                type == TokenType::unknown || id == padding_;
        if (structural && !isEndOfGeneration(id))
            neverGenerated_.push_back(id);
    }
    for (auto& bucket : specialByFirstByte_)
        std::stable_sort(bucket.begin(), bucket.end(), [this](std::int32_t a, std::int32_t b) {
            return vocabulary_->text(a).size() > vocabulary_->text(b).size();
        });
}

std::optional<std::int32_t> Tokenizer::matchSpecial(std::string_view text, std::size_t offset,
                                                    std::size_t limit) const {
    const std::string_view rest = text.substr(offset, limit - offset);
    for (const std::int32_t id : specialByFirstByte_[static_cast<unsigned char>(text[offset])])
        if (rest.starts_with(vocabulary_->text(id)))
            return id;
    return std::nullopt;
}

std::vector<std::int32_t> Tokenizer::encode(std::string_view text, bool parseSpecial) const {
    if (parseSpecial)
        return encode(text, std::span<const TextRange>{});
    std::vector<std::int32_t> out;
    out.reserve(text.size() / 3 + 4);
    if (!text.empty())
        model_->encodeFragment(text, true, out);
    return out;
}

std::vector<std::int32_t> Tokenizer::encode(std::string_view text, std::span<const TextRange> literal) const {
    for (std::size_t i = 0; i < literal.size(); ++i) {
        const bool ordered =
            literal[i].begin <= literal[i].end && (i == 0 || literal[i - 1].end <= literal[i].begin);
        if (!ordered || literal[i].end > text.size())
            throw std::invalid_argument("literal ranges must be sorted, disjoint and inside the text");
    }
    std::vector<std::int32_t> out;
    out.reserve(text.size() / 3 + 4);
    bool atSequenceStart = true;
    std::size_t fragmentStart = 0;
    std::size_t range = 0;
    for (std::size_t offset = 0; offset < text.size();) {
        while (range < literal.size() && literal[range].end <= offset)
            ++range;
        const bool inLiteral = range < literal.size() && literal[range].begin <= offset;
        if (inLiteral) {
            offset = literal[range].end;
            continue;
        }
        const std::size_t limit = range < literal.size() ? literal[range].begin : text.size();
        const auto special = matchSpecial(text, offset, limit);
        if (!special) {
            ++offset;
            continue;
        }
        if (offset > fragmentStart)
            model_->encodeFragment(text.substr(fragmentStart, offset - fragmentStart), atSequenceStart, out);
        out.push_back(*special);
        atSequenceStart = true;
        offset += vocabulary_->text(*special).size();
        fragmentStart = offset;
    }
    if (fragmentStart < text.size())
        model_->encodeFragment(text.substr(fragmentStart), atSequenceStart, out);
    return out;
}

bool Tokenizer::isEndOfGeneration(std::int32_t token) const {
    return std::binary_search(endOfGeneration_.begin(), endOfGeneration_.end(), token);
}

bool Tokenizer::mayGenerate(std::int32_t token) const {
    return vocabulary_->contains(token) &&
           !std::binary_search(neverGenerated_.begin(), neverGenerated_.end(), token);
}

std::optional<std::int32_t> Tokenizer::findToken(std::string_view text) const {
    return vocabulary_->find(text);
}

TokenType Tokenizer::tokenType(std::int32_t token) const {
    return vocabulary_->contains(token) ? vocabulary_->type(token) : TokenType::undefined;
}

const std::string& Tokenizer::tokenText(std::int32_t token) const {
    static const std::string empty;
    return vocabulary_->contains(token) ? vocabulary_->text(token) : empty;
}

std::string Tokenizer::tokenBytes(std::int32_t token) const {
    // Unused slots (e.g. "[PAD151]") are spelled like text but stand for nothing.
    if (tokenType(token) == TokenType::unused)
        return {};
    return model_->tokenBytes(token);
}

std::string Tokenizer::decode(std::span<const std::int32_t> tokens) const {
    std::string out;
    for (const std::int32_t token : tokens)
        out += tokenBytes(token);
    if (model_->addsSpacePrefix() && !out.empty() && out.front() == ' ')
        out.erase(0, 1);
    return out;
}

} // namespace parlune::llm
