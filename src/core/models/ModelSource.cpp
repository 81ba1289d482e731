#include "core/models/ModelSource.h"

namespace parlune {

QString modelSourceName(ModelSource source) {
    switch (source) {
    case ModelSource::parluneFolder:
        return QStringLiteral("Parlune models folder");
    case ModelSource::ollama:
        return QStringLiteral("Ollama");
    case ModelSource::ollamaService:
        return QStringLiteral("Ollama (system service)");
    case ModelSource::lmStudio:
        return QStringLiteral("LM Studio");
    case ModelSource::huggingFaceCache:
        return QStringLiteral("Hugging Face cache");
    case ModelSource::gpt4All:
        return QStringLiteral("GPT4All");
    case ModelSource::jan:
        return QStringLiteral("Jan");
    case ModelSource::runtimeCache:
        return QStringLiteral("Download cache");
    }
    return {};
}

} // namespace parlune
