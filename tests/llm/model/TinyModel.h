#pragma once

#include "llm/gguf/GgufFile.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/model/Model.h"
#include "llm/testing/TestModelMaker.h"

#include <algorithm>
#include <cmath>
#include <memory>
#include <span>
#include <vector>

namespace parlune::llm::testing {

// A small random model built in memory (no file, no fixtures).
inline std::shared_ptr<const Model> makeTinyModel(const TestModelRecipe& recipe) {
    return Model::fromFile(GgufFile::fromBuffer(TestModelMaker::build(recipe).toBytes(), "tiny model"));
}

// The same with `eos` as its end-of-generation token.
inline std::shared_ptr<const Model> makeTinyModel(const TestModelRecipe& recipe, std::int32_t eos) {
    GgufWriter writer = TestModelMaker::build(recipe);
    writer.setUInt32("tokenizer.ggml.eos_token_id", static_cast<std::uint32_t>(eos));
    return Model::fromFile(GgufFile::fromBuffer(writer.toBytes(), "tiny model"));
}

// The position, from `from` on, of the first token not seen earlier in `tokens` (its size if none).
inline std::size_t firstUnseen(const std::vector<std::int32_t>& tokens, std::size_t from) {
    while (from < tokens.size() &&
           std::find(tokens.begin(), tokens.begin() + static_cast<std::ptrdiff_t>(from), tokens[from]) !=
               tokens.begin() + static_cast<std::ptrdiff_t>(from)) {
        ++from;
    }
    return from;
}

inline TestModelRecipe tinySpec(Architecture architecture, GgmlType type = GgmlType::F32) {
    TestModelRecipe recipe = *TestModelRecipe::shape("tiny", architecture);
    recipe.weights.type = type;
    return recipe;
}

inline float maxAbsDifference(std::span<const float> a, std::span<const float> b) {
    float worst = a.size() == b.size() ? 0.0f : INFINITY;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
        worst = std::max(worst, std::abs(a[i] - b[i]));
    }
    return worst;
}

} // namespace parlune::llm::testing
