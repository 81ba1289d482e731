#pragma once

// Small hand-made vocabularies for exercising the tokenizers without model files.

#include "llm/tokenizer/ByteLevelBpe.h"
#include "llm/tokenizer/Tokenizer.h"
#include "llm/tokenizer/Utf8.h"

#include <cstdio>
#include <string>
#include <utility>
#include <vector>

namespace parlune::llm::test {

// Raw bytes in the byte-level vocabulary's spelling.
inline std::string spell(std::string_view bytes) {
    std::string out;
    for (const char c : bytes)
        appendUtf8(out, ByteLevelBpe::byteToChar(static_cast<unsigned char>(c)));
    return out;
}

// Ids 0-255 are the bytes; then every merge result in order; then `specials` as control tokens.
// Merges are given as raw byte pairs.
inline TokenizerConfig byteLevelConfig(const std::vector<std::pair<std::string, std::string>>& merges,
                                       const std::vector<std::string>& specials = {},
                                       std::string pre = "gpt-2") {
    TokenizerConfig config;
    config.model = "gpt2";
    config.pre = std::move(pre);
    for (int b = 0; b < 256; ++b)
        config.tokens.push_back(spell(std::string(1, static_cast<char>(b))));
    config.tokenTypes.assign(256, 1);
    for (const auto& [left, right] : merges) {
        config.merges.push_back(spell(left) + " " + spell(right));
        const std::string joined = spell(left + right);
        bool known = false;
        for (const auto& token : config.tokens)
            known = known || token == joined;
        if (!known) {
            config.tokens.push_back(joined);
            config.tokenTypes.push_back(1);
        }
    }
    for (const auto& special : specials) {
        config.tokens.push_back(special);
        config.tokenTypes.push_back(3);
    }
    return config;
}

// <unk>, <s>, </s>, the 256 byte tokens (ids 3-258), then `pieces` (text with spaces as U+2581)
// with their scores, then `specials` as control tokens.
inline TokenizerConfig sentencePieceConfig(const std::vector<std::pair<std::string, float>>& pieces,
                                           const std::vector<std::string>& specials = {}) {
    TokenizerConfig config;
    config.model = "llama";
    config.tokens = {"<unk>", "<s>", "</s>"};
    config.tokenTypes = {2, 3, 3};
    config.scores = {0, 0, 0};
    for (int b = 0; b < 256; ++b) {
        char name[8];
        std::snprintf(name, sizeof name, "<0x%02X>", b);
        config.tokens.push_back(name);
        config.tokenTypes.push_back(6);
        config.scores.push_back(0);
    }
    for (const auto& [text, score] : pieces) {
        config.tokens.push_back(text);
        config.tokenTypes.push_back(1);
        config.scores.push_back(score);
    }
    for (const auto& special : specials) {
        config.tokens.push_back(special);
        config.tokenTypes.push_back(3);
        config.scores.push_back(0);
    }
    config.unknown = 0;
    config.bos = 1;
    config.eos = 2;
    return config;
}

} // namespace parlune::llm::test
