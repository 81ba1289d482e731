#pragma once

#include <cstdint>
#include <string>

namespace parlune::llm {

class Tokenizer;

// Turns generated tokens into text as they arrive. A character whose bytes are split over
// several tokens comes out whole once its last byte arrives; bytes that can never form a
// character come out as U+FFFD. Like Tokenizer::decode, the space a SentencePiece vocabulary
// puts before the first word is dropped.
class TokenDecoder {
public:
    explicit TokenDecoder(const Tokenizer& tokenizer) : tokenizer_(tokenizer) {}

    // Text completed by this token (possibly empty).
    std::string push(std::int32_t token);
    // Whatever is still held back, unfinished characters as U+FFFD; the decoder is then empty.
    std::string flush();

private:
    std::string release(std::string text);

    const Tokenizer& tokenizer_;
    std::string pending_;
    bool atStart_ = true;
};

} // namespace parlune::llm
