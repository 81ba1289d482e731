#include "core/models/ModelCatalogue.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStandardPaths>

#include <utility>

namespace parlune {

namespace {

const QString kRelativePath = QStringLiteral("parlune/catalogue.json");

bool isLowerHex(const QString& text, qsizetype length) {
    static const QRegularExpression hex(QStringLiteral("^[0-9a-f]*$"));
    return text.size() == length && hex.match(text).hasMatch();
}

// Reads one entry; returns the reason it is malformed, or an empty string.
QString readEntry(const QJsonObject& object, CatalogueEntry& entry) {
    const auto text = [&](const char* key) { return object.value(QLatin1String(key)).toString().trimmed(); };
    entry.id = text("id");
    entry.displayName = text("displayName");
    entry.fileName = text("fileName");
    entry.repository = text("repository");
    entry.revision = text("revision");
    entry.licence = text("licence");
    entry.architecture = text("architecture");
    entry.weightType = text("weightType");
    entry.notes = text("notes");
    entry.parametersBillions = object.value(QStringLiteral("parametersBillions")).toDouble();
    entry.qualityRank = object.value(QStringLiteral("qualityRank")).toInt();
    if (entry.id.isEmpty() || entry.displayName.isEmpty() || entry.licence.isEmpty() ||
        entry.architecture.isEmpty()) {
        return QStringLiteral("lacks an id, a name, a licence or an architecture");
    }
    if (entry.fileName.isEmpty() || entry.fileName.contains(u'/') || entry.fileName.startsWith(u'.') ||
        !entry.fileName.endsWith(QStringLiteral(".gguf"))) {
        return QStringLiteral("has no plain .gguf file name");
    }
    if (entry.parametersBillions <= 0) {
        return QStringLiteral("has no parameter count");
    }
    const std::pair<const char*, std::optional<qint64>*> sizes[] = {
        {"sizeBytes", &entry.sizeBytes}, {"approximateSizeBytes", &entry.approximateSizeBytes}};
    for (const auto& [key, field] : sizes) {
        const QJsonValue value = object.value(QLatin1String(key));
        if (value.isUndefined()) {
            continue;
        }
        const qint64 bytes = value.toInteger(-1);
        if (bytes <= 0) {
            return QStringLiteral("has an invalid %1").arg(QLatin1String(key));
        }
        *field = bytes;
    }
    const QString sha256 = text("sha256");
    if (!sha256.isEmpty() && !isLowerHex(sha256, 64)) {
        return QStringLiteral("has a SHA-256 that is not 64 lowercase hex digits");
    }
    entry.sha256 = sha256.toLatin1();
    if (!entry.revision.isEmpty() && !isLowerHex(entry.revision, 40)) {
        return QStringLiteral("has a revision that is not a 40-digit commit hash");
    }
    const QString url = text("url");
    if (!url.isEmpty()) {
        entry.url = QUrl(url, QUrl::StrictMode);
        if (!entry.url.isValid() || entry.url.scheme() != QStringLiteral("https") ||
            entry.url.host().isEmpty()) {
            return QStringLiteral("has a download address that is not https");
        }
        if (entry.revision.isEmpty() || !entry.url.path().contains(u'/' + entry.revision + u'/') ||
            !entry.url.path().endsWith(u'/' + entry.fileName)) {
            return QStringLiteral("has a download address that is not pinned to its revision and file");
        }
    }
    return {};
}

} // namespace

ModelCatalogue::Result ModelCatalogue::parse(const QByteArray& json) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        return {{}, QStringLiteral("The model catalogue is not valid JSON.")};
    }
    if (document.object().value(QStringLiteral("formatVersion")).toInt() != 1) {
        return {{}, QStringLiteral("The model catalogue has a format this version cannot read.")};
    }
    Result result;
    QStringList ids;
    for (const QJsonValue& value : document.object().value(QStringLiteral("models")).toArray()) {
        CatalogueEntry entry;
        const QString problem = readEntry(value.toObject(), entry);
        if (problem.isEmpty() && ids.contains(entry.id)) {
            return {{}, QStringLiteral("The model catalogue lists %1 twice.").arg(entry.id)};
        }
        if (!problem.isEmpty()) {
            const QString who =
                entry.id.isEmpty() ? QStringLiteral("entry %1").arg(result.entries.size() + 1) : entry.id;
            return {{}, QStringLiteral("The model catalogue's %1 %2.").arg(who, problem)};
        }
        ids << entry.id;
        result.entries << entry;
    }
    return result;
}

ModelCatalogue::Result ModelCatalogue::load(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return {{}, QStringLiteral("The model catalogue %1 cannot be read.").arg(path)};
    }
    return parse(file.readAll());
}

QString ModelCatalogue::installedPath() {
    if (const QString found = QStandardPaths::locate(QStandardPaths::GenericDataLocation, kRelativePath);
        !found.isEmpty()) {
        return found;
    }
    const QStringList fallbacks{
        QCoreApplication::applicationDirPath() + QStringLiteral("/../share/") + kRelativePath,
        QStringLiteral(PARLUNE_SOURCE_DATA_DIR "/models/catalogue.json"),
    };
    for (const QString& candidate : fallbacks) {
        if (QFile::exists(candidate)) {
            return candidate;
        }
    }
    return {};
}

} // namespace parlune
