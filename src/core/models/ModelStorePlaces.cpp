#include "core/models/ModelStorePlaces.h"

#include <QDir>

namespace parlune {

namespace {

// An XDG base directory: the variable when it holds an absolute path, else the fallback under HOME.
QString baseDirectory(const QProcessEnvironment& environment, const QString& variable, const QString& home,
                      const QString& fallback) {
    const QString value = environment.value(variable);
    if (!value.isEmpty() && QDir::isAbsolutePath(value)) {
        return QDir::cleanPath(value);
    }
    return home + fallback;
}

QString overrideOr(const QProcessEnvironment& environment, const QString& variable, const QString& fallback) {
    const QString value = environment.value(variable);
    return !value.isEmpty() && QDir::isAbsolutePath(value) ? QDir::cleanPath(value) : fallback;
}

} // namespace

QList<ModelStoreRoot> ModelStorePlaces::fromEnvironment(const QProcessEnvironment& environment) {
    const QString home = QDir::cleanPath(environment.value(QStringLiteral("HOME")));
    const QString dataHome =
        baseDirectory(environment, QStringLiteral("XDG_DATA_HOME"), home, QStringLiteral("/.local/share"));
    const QString cacheHome =
        baseDirectory(environment, QStringLiteral("XDG_CACHE_HOME"), home, QStringLiteral("/.cache"));

    const QString huggingFaceHome =
        overrideOr(environment, QStringLiteral("HF_HOME"), cacheHome + QStringLiteral("/huggingface"));
    const QString huggingFaceHub = overrideOr(environment, QStringLiteral("HF_HUB_CACHE"),
                                              overrideOr(environment, QStringLiteral("HUGGINGFACE_HUB_CACHE"),
                                                         huggingFaceHome + QStringLiteral("/hub")));

    QList<ModelStoreRoot> roots{
        {ModelSource::parluneFolder, dataHome + QStringLiteral("/parlune/models")},
        {ModelSource::ollama,
         overrideOr(environment, QStringLiteral("OLLAMA_MODELS"), home + QStringLiteral("/.ollama/models"))},
        {ModelSource::ollamaService, QStringLiteral("/usr/share/ollama/.ollama/models")},
        {ModelSource::lmStudio, home + QStringLiteral("/.lmstudio/models")},
        {ModelSource::lmStudio, cacheHome + QStringLiteral("/lm-studio/models")},
        {ModelSource::huggingFaceCache, huggingFaceHub},
        {ModelSource::gpt4All, dataHome + QStringLiteral("/nomic.ai/GPT4All")},
        {ModelSource::jan, home + QStringLiteral("/jan/models")},
        {ModelSource::jan, dataHome + QStringLiteral("/Jan/data/models")},
        {ModelSource::runtimeCache,
         overrideOr(environment, QStringLiteral("LLAMA_CACHE"), cacheHome + QStringLiteral("/llama.cpp"))},
    };
    // OLLAMA_MODELS may point at the service's own store; scan it once.
    if (roots[1].path == roots[2].path) {
        roots.removeAt(2);
    }
    return roots;
}

QList<ModelStoreRoot> ModelStorePlaces::fromSystemEnvironment() {
    return fromEnvironment(QProcessEnvironment::systemEnvironment());
}

} // namespace parlune
