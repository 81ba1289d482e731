#pragma once

#include <string_view>
#include <vector>

namespace parlune::llm {

// The word-splitting rules byte-level BPE vocabularies were trained with, written out by hand
// for each family (no regular expression engine in the hot path).
enum class PreTokenizerKind {
    gpt2,      // 's|'t|'re|'ve|'m|'ll|'d| ?\p{L}+| ?\p{N}+| ?[^\s\p{L}\p{N}]+|\s+(?!\S)|\s+
    llama3,    // case-insensitive contractions, [^\r\n\p{L}\p{N}]?\p{L}+, \p{N}{1,3}, ...
    qwen2,     // as llama3 but one digit per piece
    starcoder, // every digit alone, then the gpt2 rules on what lies between
};

class PreTokenizer {
public:
    explicit PreTokenizer(PreTokenizerKind kind) : kind_(kind) {}

    // Kind for a `tokenizer.ggml.pre` value; "default" and names this engine does not know get
    // the gpt2 rules.
    static PreTokenizerKind kindForName(std::string_view name);

    PreTokenizerKind kind() const { return kind_; }

    // Appends the pieces of `text` to `pieces` (views into `text`); together they cover every
    // byte of it in order. Malformed UTF-8 bytes are kept, each classed as punctuation-like.
    void split(std::string_view text, std::vector<std::string_view>& pieces) const;

private:
    PreTokenizerKind kind_;
};

} // namespace parlune::llm
