#include "core/models/CatalogueDownload.h"

namespace parlune {

std::variant<DownloadRequest, QString> catalogueDownloadRequest(const CatalogueEntry& entry,
                                                                const QString& modelsFolder) {
    if (!entry.downloadable()) {
        return QStringLiteral(
                   "%1 has no download pinned to a checked revision yet, so Parlune does not fetch it.")
            .arg(entry.displayName);
    }
    DownloadRequest request;
    request.url = entry.url;
    request.destinationPath = modelsFolder + u'/' + entry.fileName;
    request.expectedSha256 = entry.sha256;
    // A published size is rounded: good enough to refuse early on a nearly full disk; the exact
    // size from the server is checked again before anything is written.
    request.expectedSize = entry.expectedSize();
    return request;
}

} // namespace parlune
