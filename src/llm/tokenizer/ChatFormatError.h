#pragma once

#include <stdexcept>
#include <string>

namespace parlune::llm {

// A chat template this engine cannot format for.
class ChatFormatError : public std::runtime_error {
public:
    explicit ChatFormatError(const std::string& message) : std::runtime_error(message) {}
};

} // namespace parlune::llm
