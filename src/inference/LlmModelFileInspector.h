#pragma once

#include "core/models/ModelFileInspector.h"

namespace parlune {

// The engine's answer to "what is this file and can we run it": the facts from the GGUF header
// and the usability verdict of ModelLocator, plus the check that every weight type is one the
// kernels compute with. Stateless, so any thread may use it.
class LlmModelFileInspector final : public ModelFileInspector {
public:
    ModelFileFacts inspect(const QString& path) const override;
};

} // namespace parlune
