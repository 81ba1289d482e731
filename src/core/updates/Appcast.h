#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QUrl>

#include <optional>

namespace parlune {

// One release in an update feed.
struct AppcastItem {
    QString title;
    QString version;      // the build version that is compared
    QString shortVersion; // the version shown to people
    QUrl releaseNotesUrl;
    QUrl enclosureUrl;
    qint64 enclosureLength = 0;
    QByteArray edSignature; // 64 bytes, decoded from the feed's canonical base64
};

// Reads an RSS update feed ("appcast"): channel items whose enclosure carries the archive's
// address, length and Ed25519 signature. Elements are matched by local name, whatever prefix
// the feed binds to its namespace. Items without a usable enclosure (no https address, no
// length, a signature that is not canonical base64 of 64 bytes) are left out: they could never
// be installed.
class Appcast {
public:
    struct Result {
        QList<AppcastItem> items;
        QString problem; // empty: read
    };

    static Result parse(const QByteArray& xml);

    // The newest item with a version above `currentVersion`; nullopt when there is none.
    static std::optional<AppcastItem> newestAbove(const QList<AppcastItem>& items,
                                                  const QString& currentVersion);
};

} // namespace parlune
