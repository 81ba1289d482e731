#pragma once

#include "llm/tokenizer/TokenModel.h"
#include "llm/tokenizer/Vocabulary.h"

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace parlune::llm {

// SentencePiece-style BPE: spaces are spelled U+2581, characters are joined pairwise by the
// best-scoring resulting piece, and characters that no piece covers fall back to <0xNN> tokens.
class SentencePieceBpe final : public TokenModel {
public:
    SentencePieceBpe(const Vocabulary& vocabulary, bool addSpacePrefix,
                     std::optional<std::int32_t> unknownToken);

    void encodeFragment(std::string_view fragment, bool atSequenceStart,
                        std::vector<std::int32_t>& out) const override;
    std::string tokenBytes(std::int32_t token) const override;
    bool addsSpacePrefix() const override { return addSpacePrefix_; }

private:
    std::optional<std::int32_t> findPiece(std::string_view text) const;
    void emitBytes(std::string_view text, std::vector<std::int32_t>& out) const;

    const Vocabulary& vocabulary_;
    bool addSpacePrefix_;
    std::optional<std::int32_t> unknownToken_;
    std::array<std::int32_t, 256> byteTokens_{};
};

} // namespace parlune::llm
