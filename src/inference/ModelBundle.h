#pragma once

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

namespace parlune {

namespace llm {
class ChatFormat;
class Model;
class Tokenizer;
} // namespace llm

// Everything the engine runs a model file with: weights, tokenizer and chat format. Loading it
// is the one test of whether a file is usable; discovery, the command line and the inference
// backend all load through here, so they never disagree about a file.
struct ModelBundle {
    // Why a file cannot be used; what() is the reason without the path ("not a GGUF file (...)").
    class Unusable : public std::runtime_error {
    public:
        using std::runtime_error::runtime_error;
    };

    std::shared_ptr<const llm::Model> model;
    std::shared_ptr<const llm::Tokenizer> tokenizer;
    std::shared_ptr<const llm::ChatFormat> chatFormat;

    // Throws Unusable. The weights stay in the file's mapping; nothing is read ahead.
    static ModelBundle load(const std::filesystem::path& path);
};

} // namespace parlune
