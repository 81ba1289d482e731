#include "core/models/ModelScanner.h"

#include <QThread>

namespace parlune {

ModelScanner::ModelScanner(std::shared_ptr<const ModelFileInspector> inspector, QList<ModelStoreRoot> roots)
    : discovery_(std::make_shared<ModelDiscovery>(std::move(inspector))), roots_(std::move(roots)) {}

// A scan still running keeps the discovery alive through its own reference and ends unheard.
ModelScanner::~ModelScanner() = default;

void ModelScanner::rescan() {
    if (running_) {
        pending_ = true;
        return;
    }
    startWorker();
}

void ModelScanner::startWorker() {
    running_ = true;
    pending_ = false;
    auto result = std::make_shared<QList<DiscoveredModel>>();
    QThread* worker = QThread::create(
        [discovery = discovery_, roots = roots_, result] { *result = discovery->scan(roots); });
    QObject::connect(worker, &QThread::finished, worker, &QObject::deleteLater);
    QObject::connect(worker, &QThread::finished, &context_, [this, result] {
        running_ = false;
        models_ = std::move(*result);
        if (pending_) {
            startWorker();
        }
        scanned.emit(models_);
    });
    worker->start();
}

} // namespace parlune
