#include "core/models/OllamaManifest.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>

namespace parlune {

namespace {

const QString kModelMediaType = QStringLiteral("application/vnd.ollama.image.model");
const QString kDigestPrefix = QStringLiteral("sha256:");

bool isLowerHex(QStringView text) {
    for (const QChar c : text) {
        if (!((c >= u'0' && c <= u'9') || (c >= u'a' && c <= u'f'))) {
            return false;
        }
    }
    return true;
}

OllamaManifest::Result failure(QString problem) {
    return OllamaManifest::Result{std::nullopt, std::move(problem)};
}

} // namespace

OllamaManifest::Result OllamaManifest::read(const QByteArray& json) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError) {
        return failure(QStringLiteral("the manifest is not valid JSON (%1 at byte %2)")
                           .arg(error.errorString())
                           .arg(error.offset));
    }
    if (!document.isObject()) {
        return failure(QStringLiteral("the manifest is not a JSON object"));
    }
    const QJsonValue layers = document.object().value(QStringLiteral("layers"));
    if (!layers.isArray()) {
        return failure(QStringLiteral("the manifest has no list of layers"));
    }
    for (const QJsonValue& entry : layers.toArray()) {
        const QJsonObject layer = entry.toObject();
        if (layer.value(QStringLiteral("mediaType")).toString() != kModelMediaType) {
            continue;
        }
        const QString digest = layer.value(QStringLiteral("digest")).toString();
        const QStringView hex = QStringView(digest).mid(kDigestPrefix.size());
        if (!digest.startsWith(kDigestPrefix) || hex.size() != 64 || !isLowerHex(hex)) {
            return failure(QStringLiteral("the manifest's model layer has a malformed digest"));
        }
        OllamaModelLayer result{hex.toString(), std::nullopt};
        const QJsonValue size = layer.value(QStringLiteral("size"));
        if (!size.isUndefined()) {
            const double bytes = size.toDouble(-1.0);
            // Exactly representable integers only: a size is compared with the blob's byte count.
            if (!size.isDouble() || bytes < 0 || bytes > 9007199254740992.0 ||
                bytes != static_cast<double>(static_cast<qint64>(bytes))) {
                return failure(QStringLiteral("the manifest's model layer has an invalid size"));
            }
            result.size = static_cast<qint64>(bytes);
        }
        return Result{result, {}};
    }
    return failure(QStringLiteral("the manifest has no model layer"));
}

QString OllamaManifest::blobFileName(const OllamaModelLayer& layer) {
    return QStringLiteral("sha256-") + layer.digestHex;
}

} // namespace parlune
