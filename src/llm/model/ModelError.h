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

// The model's file changed on disk while the model was in use: whatever was computed from its
// weights since may be wrong. The model must be loaded again.
class ModelFileChangedError : public ModelError {
public:
    explicit ModelFileChangedError(const std::string& path)
        : ModelError("The model file changed while in use: " + path) {}
};

} // namespace parlune::llm
