#pragma once

#include "llm/tokenizer/TextRange.h"
#include "llm/tokenizer/TokenModel.h"
#include "llm/tokenizer/TokenizerConfig.h"
#include "llm/tokenizer/TokenizerError.h"
#include "llm/tokenizer/Vocabulary.h"

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace parlune::llm {

class GgufFile;

class Tokenizer {
public:
    // Reads the `tokenizer.*` metadata of a model file.
    static std::unique_ptr<Tokenizer> fromGguf(const GgufFile& file);
    static std::unique_ptr<Tokenizer> fromConfig(TokenizerConfig config);

    Tokenizer(const Tokenizer&) = delete;
    Tokenizer& operator=(const Tokenizer&) = delete;
    ~Tokenizer();

    // Token ids of `text`; never adds BOS. With `parseSpecial`, the texts of control and
    // user-defined tokens inside `text` become those tokens; without it they are plain text.
    std::vector<std::int32_t> encode(std::string_view text, bool parseSpecial) const;
    // As encode(text, true), except that inside the `literal` ranges (sorted, disjoint, within
    // the text; throws std::invalid_argument otherwise) special-token texts stay plain text.
    // Plain text on both sides of a range edge is encoded as one piece, so the ids are those
    // of encode(text, true) wherever the ranges hold no special-token text.
    std::vector<std::int32_t> encode(std::string_view text, std::span<const TextRange> literal) const;

    std::optional<std::int32_t> bosToken() const { return bos_; }
    std::optional<std::int32_t> eosToken() const { return eos_; }
    std::optional<std::int32_t> eotToken() const { return eot_; }
    std::optional<std::int32_t> paddingToken() const { return padding_; }
    bool addBosByDefault() const { return addBos_; }
    // Whether encoding puts a space before the first word (SentencePiece vocabularies).
    bool addsSpacePrefix() const { return model_->addsSpacePrefix(); }
    // End of sequence, end of turn, end of message, and the end-of-turn tokens chat families
    // use, found by their text.
    bool isEndOfGeneration(std::int32_t token) const;
    // Whether a generated answer may contain this token: not control tokens other than the
    // end-of-generation ones, not unused, unknown or padding tokens, not ids past the vocabulary
    // (a model's output rows may outnumber its tokens).
    bool mayGenerate(std::int32_t token) const;
    // The vocabulary's tokens for which mayGenerate is false, ascending.
    std::span<const std::int32_t> neverGenerated() const { return neverGenerated_; }

    // Token whose vocabulary spelling is exactly `text` (byte-level vocabularies spell a space
    // as U+0120).
    std::optional<std::int32_t> findToken(std::string_view text) const;
    std::int32_t vocabularySize() const { return vocabulary_->size(); }
    TokenType tokenType(std::int32_t token) const;
    const std::string& tokenText(std::int32_t token) const;

    // Raw bytes a token stands for in generated text; control and unused tokens stand for nothing.
    std::string tokenBytes(std::int32_t token) const;
    // Bytes of a whole sequence, without the space the encoder puts before the first word.
    std::string decode(std::span<const std::int32_t> tokens) const;

private:
    Tokenizer(std::unique_ptr<Vocabulary> vocabulary, std::unique_ptr<TokenModel> model);
    void indexSpecialTokens();
    // Longest special token whose text starts at `text[offset]` and ends by `limit`.
    std::optional<std::int32_t> matchSpecial(std::string_view text, std::size_t offset,
                                             std::size_t limit) const;

    std::unique_ptr<Vocabulary> vocabulary_;
    std::unique_ptr<TokenModel> model_;
    std::optional<std::int32_t> bos_;
    std::optional<std::int32_t> eos_;
    std::optional<std::int32_t> eot_;
    std::optional<std::int32_t> eom_;
    std::optional<std::int32_t> padding_;
    bool addBos_ = false;
    std::vector<std::int32_t> endOfGeneration_;                     // sorted
    std::vector<std::int32_t> neverGenerated_;                      // sorted
    std::array<std::vector<std::int32_t>, 256> specialByFirstByte_; // longest text first
};

} // namespace parlune::llm
