#pragma once

#include "core/async/ChangeSignal.h"
#include "core/models/ModelDiscovery.h"

#include <QList>
#include <QObject>

#include <memory>

namespace parlune {

// Runs model discovery on a worker thread, so the main thread never waits on disks, and hands
// the result back on the main thread. A rescan asked for while one runs happens once, after it.
// The discovery (and its cache) is kept between scans.
class ModelScanner {
public:
    ModelScanner(std::shared_ptr<const ModelFileInspector> inspector, QList<ModelStoreRoot> roots);
    ~ModelScanner();
    ModelScanner(const ModelScanner&) = delete;
    ModelScanner& operator=(const ModelScanner&) = delete;

    void rescan();
    bool scanning() const { return running_; }
    // The result of the last finished scan.
    const QList<DiscoveredModel>& models() const { return models_; }

    ChangeSignal<QList<DiscoveredModel>> scanned;

private:
    void startWorker();

    std::shared_ptr<ModelDiscovery> discovery_;
    QList<ModelStoreRoot> roots_;
    QList<DiscoveredModel> models_;
    QObject context_;
    bool running_ = false;
    bool pending_ = false;
};

} // namespace parlune
