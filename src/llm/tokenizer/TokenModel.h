#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace parlune::llm {

// How one kind of vocabulary turns plain text (no special tokens in it) into ids and back.
class TokenModel {
public:
    virtual ~TokenModel() = default;
    // `atSequenceStart`: the fragment starts the text or follows a special token.
    virtual void encodeFragment(std::string_view fragment, bool atSequenceStart,
                                std::vector<std::int32_t>& out) const = 0;
    virtual std::string tokenBytes(std::int32_t token) const = 0;
    // Whether encoding puts a space before the first word (decoding then drops it again).
    virtual bool addsSpacePrefix() const = 0;
};

} // namespace parlune::llm
