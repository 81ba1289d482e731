#pragma once

#include "llm/gguf/GgufFile.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/model/Model.h"
#include "llm/testing/TestModelMaker.h"

#include <cmath>
#include <memory>
#include <span>

namespace parlune::llm::testing {

// A small random model built in memory (no file, no fixtures).
inline std::shared_ptr<const Model> makeTinyModel(const TestModelRecipe& recipe) {
    return Model::fromFile(GgufFile::fromBuffer(TestModelMaker::build(recipe).toBytes(), "tiny model"));
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
