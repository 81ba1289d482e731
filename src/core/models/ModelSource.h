#pragma once

#include <QString>

namespace parlune {

// Where a model file was found. The order is the order in which stores are scanned and listed.
enum class ModelSource {
    parluneFolder,
    ollama,
    ollamaService,
    lmStudio,
    huggingFaceCache,
    gpt4All,
    jan,
    runtimeCache,
};

// The store's name as the model chooser shows it.
QString modelSourceName(ModelSource source);

} // namespace parlune
