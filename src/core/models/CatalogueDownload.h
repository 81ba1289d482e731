#pragma once

#include "core/models/ModelCatalogue.h"
#include "core/models/VerifiedDownload.h"

#include <QString>

#include <variant>

namespace parlune {

// What to download for a catalogue model into the models folder (the file under its catalogue
// name, checked against the catalogue's SHA-256 when it has one), or the sentence that says
// why that model cannot be downloaded.
std::variant<DownloadRequest, QString> catalogueDownloadRequest(const CatalogueEntry& entry,
                                                                const QString& modelsFolder);

} // namespace parlune
