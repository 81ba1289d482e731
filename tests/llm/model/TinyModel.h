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
inline std::shared_ptr<const Model> makeTinyModel(const TestModelSpec& spec) {
    return Model::fromFile(GgufFile::fromBuffer(TestModelMaker::build(spec).toBytes(), "tiny model"));
}

inline TestModelSpec tinySpec(Architecture architecture, GgmlType type = GgmlType::F32) {
    TestModelSpec spec = *TestModelSpec::shape("tiny", architecture);
    spec.weights.type = type;
    return spec;
}

inline float maxAbsDifference(std::span<const float> a, std::span<const float> b) {
    float worst = a.size() == b.size() ? 0.0f : INFINITY;
    for (std::size_t i = 0; i < a.size() && i < b.size(); ++i) {
        worst = std::max(worst, std::abs(a[i] - b[i]));
    }
    return worst;
}

} // namespace parlune::llm::testing
