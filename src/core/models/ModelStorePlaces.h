#pragma once

#include "core/models/ModelSource.h"

#include <QList>
#include <QProcessEnvironment>
#include <QString>

namespace parlune {

// One folder to scan and the layout it has.
struct ModelStoreRoot {
    ModelSource source = ModelSource::parluneFolder;
    QString path;

    friend bool operator==(const ModelStoreRoot&, const ModelStoreRoot&) = default;
};

// The folders where this user's local-model tools keep their models, from the environment
// (HOME, XDG_DATA_HOME, XDG_CACHE_HOME and each tool's own override), in scanning order.
class ModelStorePlaces {
public:
    static QList<ModelStoreRoot> fromEnvironment(const QProcessEnvironment& environment);
    static QList<ModelStoreRoot> fromSystemEnvironment();
};

} // namespace parlune
