#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace parlune::llm {

// One step of lenient UTF-8 decoding: a malformed or truncated sequence yields one invalid
// byte (`valid` false, `length` 1) so callers can keep the original bytes and move on.
struct Utf8Char {
    char32_t codePoint;
    std::size_t length;
    bool valid;
};

Utf8Char decodeUtf8(std::string_view text, std::size_t offset);
void appendUtf8(std::string& out, char32_t codePoint);

// Length of the sequence a lead byte announces (1 for ASCII and for bytes that cannot lead).
std::size_t utf8SequenceLength(unsigned char leadByte);

// Bytes at the end of `text` that begin a valid sequence not yet complete; 0 when none.
std::size_t incompleteUtf8Suffix(std::string_view text);

// `text` with every malformed byte replaced by U+FFFD.
std::string sanitizeUtf8(std::string_view text);

} // namespace parlune::llm
