#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace parlune::llm {

// Everything a tokenizer is built from, as a model file's `tokenizer.ggml.*` metadata holds it.
struct TokenizerConfig {
    std::string model; // "gpt2" (byte-level BPE) or "llama" (SentencePiece BPE)
    std::string pre;   // pre-tokenizer name for byte-level BPE
    std::vector<std::string> tokens;
    std::vector<std::int32_t> tokenTypes; // empty: all normal
    std::vector<float> scores;            // empty: all zero
    std::vector<std::string> merges;      // byte-level BPE only, best first
    std::optional<std::int32_t> bos;
    std::optional<std::int32_t> eos;
    std::optional<std::int32_t> eot;
    std::optional<std::int32_t> eom;
    std::optional<std::int32_t> padding;
    std::optional<std::int32_t> unknown;
    std::optional<bool> addBos;
    std::optional<bool> addSpacePrefix;
};

} // namespace parlune::llm
