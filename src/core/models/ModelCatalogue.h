#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>

#include <optional>

namespace parlune {

// One recommended model the program can download. Facts that are not known are absent rather
// than guessed: an entry without a pinned revision has no download address.
struct CatalogueEntry {
    QString id;
    QString displayName;
    QString fileName;
    QString repository;
    QString revision;                           // 40 hex digits; empty when not pinned
    QUrl url;                                   // https, at `revision`; empty when not pinned
    std::optional<qint64> sizeBytes;            // exact
    std::optional<qint64> approximateSizeBytes; // as published, rounded
    QByteArray sha256;                          // 64 lowercase hex digits; empty when not known
    QString licence;
    QString architecture;
    QString weightType;
    double parametersBillions = 0;
    int qualityRank = 0; // higher is better
    QString notes;

    bool downloadable() const { return !url.isEmpty(); }
    // The exact size, else the published one; nullopt when neither is known.
    std::optional<qint64> expectedSize() const { return sizeBytes ? sizeBytes : approximateSizeBytes; }
};

// The catalogue of recommended models, a JSON file installed with the program. A malformed
// entry rejects the whole file: it is our own data, and a half-read catalogue would hide errors.
class ModelCatalogue {
public:
    struct Result {
        QList<CatalogueEntry> entries;
        QString problem; // empty: read
    };

    static Result parse(const QByteArray& json);
    static Result load(const QString& path);

    // Where the installed catalogue is: the XDG data directories, then beside the executable's
    // share folder, then the source tree (for a build that was never installed). Empty if none.
    static QString installedPath();
};

} // namespace parlune
