#pragma once

#include "llm/tokenizer/PreTokenizer.h"
#include "llm/tokenizer/TokenModel.h"
#include "llm/tokenizer/Vocabulary.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace parlune::llm {

// Byte-level BPE: every byte is spelled as one printable character in the vocabulary, words
// come from the family's pre-tokenizer, and ranked merges join adjacent symbols.
class ByteLevelBpe final : public TokenModel {
public:
    // `merges` are "left right" in the vocabulary's spelling, best rank first. A merge whose
    // parts or result are not tokens can never apply and is dropped. `wholeWordsFirst`: a word
    // that is itself a token is taken as is (Llama 3 does this).
    ByteLevelBpe(const Vocabulary& vocabulary, const std::vector<std::string>& merges,
                 PreTokenizerKind preTokenizer, bool wholeWordsFirst);

    void encodeFragment(std::string_view fragment, bool atSequenceStart,
                        std::vector<std::int32_t>& out) const override;
    std::string tokenBytes(std::int32_t token) const override;
    bool addsSpacePrefix() const override { return false; }

    // The printable character a byte is spelled with, and back (-1: not a byte's spelling).
    static char32_t byteToChar(unsigned char byte);
    static int charToByte(char32_t ch);

private:
    struct Merge {
        std::int32_t rank;
        std::int32_t result;
    };
    struct Symbol {
        std::int32_t token; // -1 once merged into its left neighbour
        std::int32_t prev;
        std::int32_t next;
    };
    struct Candidate {
        std::int32_t rank;
        std::int32_t left;
        std::int32_t leftToken;
        std::int32_t rightToken;
        std::int32_t result;
    };
    // Buffers reused across the words of one fragment.
    struct Scratch {
        std::vector<Symbol> symbols;
        std::vector<Candidate> heap;
        std::string patched; // the word with unspellable bytes replaced
        std::string spelled; // the word in the vocabulary's spelling
    };

    void encodeWord(std::string_view word, Scratch& scratch, std::vector<std::int32_t>& out) const;

    const Vocabulary& vocabulary_;
    PreTokenizer preTokenizer_;
    bool wholeWordsFirst_;
    std::array<std::int32_t, 256> byteTokens_{};
    std::unordered_map<std::uint64_t, Merge> merges_;
};

} // namespace parlune::llm
