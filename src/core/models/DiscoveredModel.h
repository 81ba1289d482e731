#pragma once

#include "core/models/ModelFileInspector.h"
#include "core/models/ModelSource.h"

#include <QString>

namespace parlune {

// One model file found on this computer, left where it is.
struct DiscoveredModel {
    QString displayName; // the store's own name (Ollama "name:tag"), else general.name, else the file name
    ModelSource source = ModelSource::parluneFolder;
    QString path; // the file to load (for Ollama, the blob)
    qint64 sizeBytes = 0;
    ModelFileFacts facts; // facts.problem also holds store problems (a broken manifest, a missing blob)

    bool usable() const { return facts.usable(); }
};

} // namespace parlune
