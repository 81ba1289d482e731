#include "core/models/ModelRecommendation.h"

#include <QLocale>

namespace parlune {

namespace {

constexpr qint64 kEngineOverheadBytes = qint64{512} << 20;

} // namespace

std::optional<qint64> ModelRecommendation::memoryNeeded(const CatalogueEntry& entry) {
    const std::optional<qint64> size = entry.expectedSize();
    if (!size) {
        return std::nullopt;
    }
    return memoryNeededForFile(*size);
}

qint64 ModelRecommendation::memoryNeededForFile(qint64 fileBytes) {
    return fileBytes + fileBytes / 5 + kEngineOverheadBytes;
}

QString ModelRecommendation::memoryShortfall(qint64 fileBytes, const MachineResources& machine) {
    const qint64 needed = memoryNeededForFile(fileBytes);
    if (needed <= machine.availableMemoryBytes) {
        return {};
    }
    const QLocale c = QLocale::c();
    return QStringLiteral("needs %1 of memory, %2 free")
        .arg(c.formattedDataSize(needed, 1, QLocale::DataSizeSIFormat),
             c.formattedDataSize(machine.availableMemoryBytes, 1, QLocale::DataSizeSIFormat));
}

bool ModelRecommendation::fitsAvailableMemory(const CatalogueEntry& entry, const MachineResources& machine) {
    const std::optional<qint64> needed = memoryNeeded(entry);
    return needed && *needed <= machine.availableMemoryBytes;
}

double ModelRecommendation::largestParametersForCores(int cores) {
    if (cores < 4) {
        return 2.0;
    }
    if (cores < 8) {
        return 3.5;
    }
    return 1000.0;
}

std::optional<CatalogueEntry> ModelRecommendation::recommend(const QList<CatalogueEntry>& entries,
                                                             const MachineResources& machine) {
    const CatalogueEntry* best = nullptr;
    for (const CatalogueEntry& entry : entries) {
        const std::optional<qint64> needed = memoryNeeded(entry);
        if (!entry.downloadable() || !needed || *needed > machine.totalMemoryBytes / 2 ||
            entry.parametersBillions > largestParametersForCores(machine.cores)) {
            continue;
        }
        if (!best || entry.qualityRank > best->qualityRank ||
            (entry.qualityRank == best->qualityRank && *needed < *memoryNeeded(*best))) {
            best = &entry;
        }
    }
    return best ? std::optional<CatalogueEntry>(*best) : std::nullopt;
}

} // namespace parlune
