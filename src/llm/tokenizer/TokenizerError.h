#pragma once

#include <stdexcept>
#include <string>

namespace parlune::llm {

// A vocabulary that cannot be used: missing or inconsistent tokenizer metadata.
class TokenizerError : public std::runtime_error {
public:
    explicit TokenizerError(const std::string& message) : std::runtime_error(message) {}
};

} // namespace parlune::llm
