#pragma once

#include "core/platform/LanguageModelFramework.h"
#include "inference/LlmInference.h"
#include "inference/ModelLocator.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/testing/TestModelMaker.h"

#include <filesystem>
#include <string>
#include <vector>

namespace parlune::test {

// Writes a tiny random qwen2 model to `path`, its output untied: a tied random model answers with
// one blank token over and over.
inline std::filesystem::path writeTinyModel(const std::filesystem::path& path,
                                            std::int64_t contextLength = 2048,
                                            const std::vector<std::string>& languages = {},
                                            std::uint64_t seed = 1) {
    llm::TestModelRecipe recipe = *llm::TestModelRecipe::shape("tiny", llm::Architecture::qwen2);
    recipe.contextLength = contextLength;
    recipe.tiedOutput = false;
    recipe.seed = seed;
    llm::GgufWriter writer = llm::TestModelMaker::build(recipe);
    if (!languages.empty()) {
        writer.setStringArray("general.languages", languages);
    }
    writer.write(path);
    return path;
}

// Options that load whatever `path` holds at each request, as the user's chosen file.
inline LlmInference::Options optionsFor(const std::filesystem::path& path, int threads = 1) {
    LlmInference::Options options;
    options.locate = [path] {
        return std::optional(ModelLocator::inspect(path, ModelFileReport::Source::setting));
    };
    options.threadCount = threads;
    return options;
}

inline GenerationOptions greedy(std::int64_t maximumTokens) {
    return {.maximumResponseTokens = maximumTokens};
}

} // namespace parlune::test
