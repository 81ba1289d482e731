#include "core/updates/Appcast.h"

#include "core/updates/VersionComparison.h"

#include <QXmlStreamReader>

namespace parlune {

namespace {

std::optional<QByteArray> canonicalBase64(const QString& text, qsizetype decodedSize) {
    const QByteArray encoded = text.toLatin1();
    const QByteArray::FromBase64Result decoded =
        QByteArray::fromBase64Encoding(encoded, QByteArray::AbortOnBase64DecodingErrors);
    if (!decoded || decoded.decoded.size() != decodedSize || decoded.decoded.toBase64() != encoded) {
        return std::nullopt;
    }
    return decoded.decoded;
}

struct ItemBeingRead {
    AppcastItem item;
    QString enclosureVersion;
    QString enclosureShortVersion;
    QString signature;
    bool hasEnclosure = false;
};

std::optional<AppcastItem> finish(ItemBeingRead read) {
    AppcastItem item = std::move(read.item);
    if (item.version.isEmpty()) {
        item.version = read.enclosureVersion;
    }
    if (item.shortVersion.isEmpty()) {
        item.shortVersion = read.enclosureShortVersion.isEmpty() ? item.version : read.enclosureShortVersion;
    }
    const std::optional<QByteArray> signature = canonicalBase64(read.signature, 64);
    if (!read.hasEnclosure || item.version.isEmpty() ||
        item.enclosureUrl.scheme() != QStringLiteral("https") || item.enclosureLength <= 0 || !signature) {
        return std::nullopt;
    }
    item.edSignature = *signature;
    return item;
}

} // namespace

Appcast::Result Appcast::parse(const QByteArray& xml) {
    QXmlStreamReader reader(xml);
    Result result;
    std::optional<ItemBeingRead> current;
    bool sawChannel = false;
    while (!reader.atEnd()) {
        const QXmlStreamReader::TokenType token = reader.readNext();
        if (token == QXmlStreamReader::EndElement && reader.name() == QStringLiteral("item") && current) {
            if (std::optional<AppcastItem> item = finish(std::move(*current))) {
                result.items << std::move(*item);
            }
            current.reset();
            continue;
        }
        if (token != QXmlStreamReader::StartElement) {
            continue;
        }
        const QStringView name = reader.name();
        if (name == QStringLiteral("channel")) {
            sawChannel = true;
        } else if (name == QStringLiteral("item")) {
            current.emplace();
        } else if (!current) {
            continue;
        } else if (name == QStringLiteral("title")) {
            current->item.title = reader.readElementText().trimmed();
        } else if (name == QStringLiteral("version")) {
            current->item.version = reader.readElementText().trimmed();
        } else if (name == QStringLiteral("shortVersionString")) {
            current->item.shortVersion = reader.readElementText().trimmed();
        } else if (name == QStringLiteral("releaseNotesLink")) {
            current->item.releaseNotesUrl = QUrl(reader.readElementText().trimmed(), QUrl::StrictMode);
        } else if (name == QStringLiteral("enclosure")) {
            current->hasEnclosure = true;
            for (const QXmlStreamAttribute& attribute : reader.attributes()) {
                const QStringView key = attribute.name();
                const QString value = attribute.value().toString().trimmed();
                const QString untrimmed = attribute.value().toString();
                if (key == QStringLiteral("url")) {
                    current->item.enclosureUrl = QUrl(value, QUrl::StrictMode);
                } else if (key == QStringLiteral("length")) {
                    current->item.enclosureLength = value.toLongLong();
                } else if (key == QStringLiteral("edSignature")) {
                    current->signature = untrimmed; // a signature is taken exactly as written
                } else if (key == QStringLiteral("version")) {
                    current->enclosureVersion = value;
                } else if (key == QStringLiteral("shortVersionString")) {
                    current->enclosureShortVersion = value;
                }
            }
        }
    }
    if (reader.hasError()) {
        return {{},
                QStringLiteral("The update feed is not valid XML (%1, line %2).")
                    .arg(reader.errorString())
                    .arg(reader.lineNumber())};
    }
    if (!sawChannel) {
        return {{}, QStringLiteral("The update feed has no channel.")};
    }
    return result;
}

std::optional<AppcastItem> Appcast::newestAbove(const QList<AppcastItem>& items,
                                                const QString& currentVersion) {
    const AppcastItem* newest = nullptr;
    for (const AppcastItem& item : items) {
        if (compareVersions(item.version, currentVersion) > 0 &&
            (!newest || compareVersions(item.version, newest->version) > 0)) {
            newest = &item;
        }
    }
    return newest ? std::optional<AppcastItem>(*newest) : std::nullopt;
}

} // namespace parlune
