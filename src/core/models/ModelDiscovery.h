#pragma once

#include "core/models/DiscoveredModel.h"
#include "core/models/ModelFileInspector.h"
#include "core/models/ModelStorePlaces.h"
#include "core/models/RegularFile.h"

#include <QHash>
#include <QList>
#include <QSet>

#include <memory>

namespace parlune {

// Finds the GGUF models the user already has in the stores of local-model tools, read-only and
// in place. Each file is stat'ed first and inspected only when its size or modification time
// changed since the last scan by this object, so rescanning a large store costs a directory
// walk. Not thread-safe: use one object per thread (the inspector itself must be stateless).
class ModelDiscovery {
public:
    explicit ModelDiscovery(std::shared_ptr<const ModelFileInspector> inspector);

    // Every model found, store by store in the order of `roots`, by path within a store. A file
    // reached twice under the same name (a snapshot sharing a blob, a link into another store) is
    // listed once, where it was first found.
    QList<DiscoveredModel> scan(const QList<ModelStoreRoot>& roots);

private:
    struct CachedFacts {
        RegularFileStat stat;
        ModelFileFacts facts;
    };

    void scanFolder(const ModelStoreRoot& root, int maxDepth, QList<DiscoveredModel>& found);
    void scanHuggingFaceCache(const ModelStoreRoot& root, QList<DiscoveredModel>& found);
    void scanOllama(const ModelStoreRoot& root, QList<DiscoveredModel>& found);
    void addFile(ModelSource source, const QString& path, QString storeName, QList<DiscoveredModel>& found);
    std::optional<DiscoveredModel> describe(ModelSource source, const QString& path, QString storeName);
    ModelFileFacts inspect(const QString& path, const RegularFileStat& stat);
    static QString identity(const RegularFileStat& stat); // device and inode

    std::shared_ptr<const ModelFileInspector> inspector_;
    QHash<QString, CachedFacts> cache_;            // by identity
    QHash<QString, RegularFileStat> scannedStats_; // this scan's files
    QSet<QString> listed_;                         // device, inode and name of what this scan listed
};

} // namespace parlune
