#pragma once

#include "core/models/MachineResources.h"
#include "core/models/ModelCatalogue.h"

#include <QList>
#include <QString>

#include <optional>

namespace parlune {

// Which catalogue models suit this computer. A model needs its weights in memory plus room for
// the key/value cache and the engine; the desktop keeps at least half of the memory. Fewer cores
// make larger models too slow for interactive rewriting, so they cap the model size.
class ModelRecommendation {
public:
    // Memory the model needs while rewriting; nullopt when its size is not known.
    static std::optional<qint64> memoryNeeded(const CatalogueEntry& entry);
    static qint64 memoryNeededForFile(qint64 fileBytes);
    // Empty when a model file of `fileBytes` fits the memory available now; otherwise what it
    // lacks, e.g. "needs 2.1 GB of memory, 1.4 GB free".
    static QString memoryShortfall(qint64 fileBytes, const MachineResources& machine);
    // Whether the model fits in the memory available right now (for the chooser's remark).
    static bool fitsAvailableMemory(const CatalogueEntry& entry, const MachineResources& machine);
    // The best downloadable model that fits half the memory and is quick enough on these cores;
    // among equals the smaller. nullopt when none does.
    static std::optional<CatalogueEntry> recommend(const QList<CatalogueEntry>& entries,
                                                   const MachineResources& machine);
    static double largestParametersForCores(int cores);
};

} // namespace parlune
