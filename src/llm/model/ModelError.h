#pragma once

#include <stdexcept>
#include <string>

namespace parlune::llm {

// A GGUF file that parses but does not describe a model this engine can run: an unknown
// architecture, a missing or misshapen tensor, inconsistent hyper-parameters.
class ModelError : public std::runtime_error {
public:
    explicit ModelError(const std::string& message) : std::runtime_error(message) {}
};

} // namespace parlune::llm
