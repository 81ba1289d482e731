#pragma once

#include <stdexcept>
#include <string>

namespace parlune::llm {

// A model file that cannot be read as GGUF. The message names the file, the part of it that is
// wrong (metadata key, tensor name, byte offset) and why.
class GgufError : public std::runtime_error {
public:
    explicit GgufError(const std::string& message) : std::runtime_error(message) {}
};

} // namespace parlune::llm
