#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

namespace parlune::llm {

class Tokenizer;

// The bytes of every token, worked out once per vocabulary, with the tokens grouped by first
// byte so that a constraint can skip every token starting with a byte it refuses. Tokens that
// stand for no bytes (control tokens) are in no group; end-of-generation tokens are listed apart.
class TokenByteTable {
public:
    explicit TokenByteTable(const Tokenizer& tokenizer);

    std::int32_t size() const { return static_cast<std::int32_t>(bytes_.size()); }
    const std::string& bytes(std::int32_t token) const { return bytes_[static_cast<std::size_t>(token)]; }
    const std::vector<std::int32_t>& startingWith(unsigned char byte) const { return byFirstByte_[byte]; }
    const std::vector<std::int32_t>& endOfGeneration() const { return endOfGeneration_; }
    bool isEndOfGeneration(std::int32_t token) const;
    // The shortest token (lowest id among equals) that is exactly this one byte, or -1.
    std::int32_t singleByteToken(unsigned char byte) const { return singleByte_[byte]; }

private:
    std::vector<std::string> bytes_;
    std::array<std::vector<std::int32_t>, 256> byFirstByte_;
    std::array<std::int32_t, 256> singleByte_{};
    std::vector<std::int32_t> endOfGeneration_; // sorted
};

} // namespace parlune::llm
