#include "core/updates/UpdateConfiguration.h"

namespace parlune {

const QUrl UpdateConfiguration::productionAppcastUrl(QStringLiteral("https://parlune.app/appcast.xml"));
const QString
    UpdateConfiguration::productionPublicKey(QStringLiteral("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv0="));

UpdateConfiguration UpdateConfiguration::production() {
    return UpdateConfiguration{QUrl(QStringLiteral("https://parlune.app/download")), productionAppcastUrl};
}

bool UpdateConfiguration::canUseVerifiedFeed(const std::optional<QString>& feedUrlString,
                                             const std::optional<QString>& publicKey) const {
    if (appcastUrl != productionAppcastUrl) {
        return false;
    }
    if (!feedUrlString || *feedUrlString != appcastUrl.toString(QUrl::FullyEncoded)) {
        return false;
    }
    if (!publicKey || *publicKey != productionPublicKey) {
        return false;
    }
    // A key that decodes to the same bytes from another spelling (padding, line breaks) is not
    // the configured key.
    const QByteArray text = publicKey->toLatin1();
    const QByteArray::FromBase64Result decoded =
        QByteArray::fromBase64Encoding(text, QByteArray::AbortOnBase64DecodingErrors);
    return decoded && decoded.decoded.size() == 32 && decoded.decoded.toBase64() == text;
}

UpdateBuildMetadata UpdateBuildMetadata::ofThisBuild() {
    UpdateBuildMetadata metadata;
    if (const QString feed = QStringLiteral(PARLUNE_UPDATE_FEED_URL); !feed.isEmpty()) {
        metadata.feedUrl = feed;
    }
    if (const QString key = QStringLiteral(PARLUNE_UPDATE_PUBLIC_KEY); !key.isEmpty()) {
        metadata.publicKey = key;
    }
    return metadata;
}

} // namespace parlune
