#include "core/shell/UpdateConfiguration.h"

#include <QByteArray>

namespace parlune {

namespace {

constexpr qsizetype publicKeyLength = 32;

} // namespace

bool UpdateConfiguration::isCanonicalPublicKey(const QString& key) {
    const QByteArray encoded = key.toLatin1();
    const QByteArray::FromBase64Result decoded =
        QByteArray::fromBase64Encoding(encoded, QByteArray::AbortOnBase64DecodingErrors);
    return decoded.decodingStatus == QByteArray::Base64DecodingStatus::Ok &&
           decoded.decoded.size() == publicKeyLength && decoded.decoded.toBase64() == encoded &&
           QString::fromLatin1(encoded) == key;
}

QUrl UpdateConfiguration::productionAppcastURL() {
    return QUrl(QStringLiteral("https://parlune.app/appcast.xml"));
}

QUrl UpdateConfiguration::productionDownloadPageURL() {
    return QUrl(QStringLiteral("https://parlune.app/download"));
}

UpdateConfiguration UpdateConfiguration::production() {
    return UpdateConfiguration{productionDownloadPageURL(), productionAppcastURL()};
}

bool UpdateConfiguration::canUseSparkle(const std::optional<QString>& feedURLString,
                                        const std::optional<QString>& publicEDKey) const {
    if (appcastURL != productionAppcastURL()) {
        return false;
    }
    if (!feedURLString || *feedURLString != appcastURL.toString(QUrl::FullyEncoded)) {
        return false;
    }
    if (!publicEDKey || *publicEDKey != QLatin1String(productionSparklePublicEDKey)) {
        return false;
    }
    return isCanonicalPublicKey(*publicEDKey);
}

} // namespace parlune
