#include "core/models/ModelDiscovery.h"

#include "core/models/OllamaManifest.h"

#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

namespace parlune {

namespace {

namespace fs = std::filesystem;

QString toQString(const fs::path& path) {
    return QString::fromStdString(path.string());
}

bool isGgufName(const QString& name) {
    return name.endsWith(QStringLiteral(".gguf"), Qt::CaseInsensitive);
}

// Later shards of a split model are not models on their own; the first shard stands for them.
bool isLaterShard(const QString& name) {
    static const QRegularExpression shard(QStringLiteral("-(\\d{5})-of-\\d{5}\\.gguf$"),
                                          QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = shard.match(name);
    return match.hasMatch() && match.captured(1) != QStringLiteral("00001");
}

// Regular entries below `folder`, at most `maxDepth` levels down (1: the folder itself), in
// path order. Directory links are not followed, so a link loop cannot trap the walk.
QStringList filesBelow(const QString& folder, int maxDepth) {
    QStringList files;
    std::error_code error;
    fs::recursive_directory_iterator it(folder.toStdString(), fs::directory_options::skip_permission_denied,
                                        error);
    for (const fs::recursive_directory_iterator end; !error && it != end; it.increment(error)) {
        std::error_code entryError;
        if (it->is_directory(entryError) && !it->is_symlink(entryError)) {
            if (it.depth() + 1 >= maxDepth) {
                it.disable_recursion_pending();
            }
            continue;
        }
        files.append(toQString(it->path()));
    }
    std::sort(files.begin(), files.end());
    return files;
}

QStringList subfolders(const QString& folder) {
    QStringList result = QDir(folder).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (QString& name : result) {
        name = folder + u'/' + name;
    }
    return result;
}

// Ollama names a model "model:tag" in its own registry's "library" namespace, and by its
// namespace or host otherwise.
QString ollamaName(const QStringList& parts) {
    const QString& host = parts[0];
    const QString& space = parts[1];
    const QString nameAndTag = parts[2] + u':' + parts[3];
    if (host == QStringLiteral("registry.ollama.ai")) {
        return space == QStringLiteral("library") ? nameAndTag : space + u'/' + nameAndTag;
    }
    return host + u'/' + space + u'/' + nameAndTag;
}

} // namespace

QString ModelDiscovery::identity(const RegularFileStat& stat) {
    return QStringLiteral("%1:%2").arg(stat.device).arg(stat.inode);
}

ModelDiscovery::ModelDiscovery(std::shared_ptr<const ModelFileInspector> inspector)
    : inspector_(std::move(inspector)) {}

QList<DiscoveredModel> ModelDiscovery::scan(const QList<ModelStoreRoot>& roots) {
    QList<DiscoveredModel> found;
    scannedStats_.clear();
    listed_.clear();
    for (const ModelStoreRoot& root : roots) {
        switch (root.source) {
        case ModelSource::parluneFolder:
        case ModelSource::gpt4All:
        case ModelSource::runtimeCache:
            scanFolder(root, 1, found);
            break;
        case ModelSource::lmStudio:
        case ModelSource::jan:
            scanFolder(root, 3, found); // publisher/repository/file, model-id/file
            break;
        case ModelSource::huggingFaceCache:
            scanHuggingFaceCache(root, found);
            break;
        case ModelSource::ollama:
        case ModelSource::ollamaService:
            scanOllama(root, found);
            break;
        }
    }
    // Files that disappeared are forgotten, so the cache never outgrows what is on disk.
    QSet<QString> present;
    for (const RegularFileStat& stat : std::as_const(scannedStats_)) {
        present.insert(identity(stat));
    }
    for (auto it = cache_.begin(); it != cache_.end();) {
        it = present.contains(it.key()) ? std::next(it) : cache_.erase(it);
    }
    return found;
}

void ModelDiscovery::scanFolder(const ModelStoreRoot& root, int maxDepth, QList<DiscoveredModel>& found) {
    for (const QString& path : filesBelow(root.path, maxDepth)) {
        addFile(root.source, path, {}, found);
    }
}

void ModelDiscovery::scanHuggingFaceCache(const ModelStoreRoot& root, QList<DiscoveredModel>& found) {
    // hub/models--<owner>--<name>/snapshots/<revision>/<file>, each file a link into ../../blobs.
    const QStringList repositories = QDir(root.path).entryList({QStringLiteral("models--*")},
                                                               QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString& repository : repositories) {
        for (const QString& snapshot :
             subfolders(root.path + u'/' + repository + QStringLiteral("/snapshots"))) {
            for (const QString& path : filesBelow(snapshot, 2)) {
                addFile(root.source, path, {}, found);
            }
        }
    }
}

void ModelDiscovery::scanOllama(const ModelStoreRoot& root, QList<DiscoveredModel>& found) {
    // manifests/<host>/<namespace>/<model>/<tag>, each naming its layers' blobs by digest.
    const QString manifests = root.path + QStringLiteral("/manifests");
    for (const QString& manifestPath : filesBelow(manifests, 4)) {
        const QStringList parts = manifestPath.mid(manifests.size() + 1).split(u'/');
        if (parts.size() != 4) {
            continue;
        }
        const QString name = ollamaName(parts);
        DiscoveredModel entry;
        entry.displayName = name;
        entry.source = root.source;
        entry.path = manifestPath;

        QString problem;
        const std::optional<QByteArray> bytes =
            RegularFile::readSmall(manifestPath, OllamaManifest::maxManifestBytes, problem);
        if (!bytes) {
            entry.facts.problem = QStringLiteral("the manifest ") + problem;
            found.append(entry);
            continue;
        }
        const OllamaManifest::Result manifest = OllamaManifest::read(*bytes);
        if (!manifest.modelLayer) {
            entry.facts.problem = manifest.problem;
            found.append(entry);
            continue;
        }
        const QString blob =
            root.path + QStringLiteral("/blobs/") + OllamaManifest::blobFileName(*manifest.modelLayer);
        const std::optional<RegularFileStat> stat = RegularFile::stat(blob);
        if (!stat) {
            entry.path = blob;
            entry.facts.problem = QStringLiteral("the model file the manifest names is missing");
            found.append(entry);
            continue;
        }
        if (manifest.modelLayer->size && *manifest.modelLayer->size != stat->size) {
            entry.path = blob;
            entry.sizeBytes = stat->size;
            entry.facts.problem =
                QStringLiteral(
                    "the model file is %1 bytes but the manifest says %2 (an unfinished download?)")
                    .arg(stat->size)
                    .arg(*manifest.modelLayer->size);
            found.append(entry);
            continue;
        }
        addFile(root.source, blob, name, found);
    }
}

void ModelDiscovery::addFile(ModelSource source, const QString& path, QString storeName,
                             QList<DiscoveredModel>& found) {
    std::optional<DiscoveredModel> model = describe(source, path, std::move(storeName));
    if (!model) {
        return;
    }
    const RegularFileStat stat = scannedStats_.value(path);
    const QString listing = identity(stat) + u':' + model->displayName;
    if (!listed_.contains(listing)) {
        listed_.insert(listing);
        found.append(std::move(*model));
    }
}

std::optional<DiscoveredModel> ModelDiscovery::describe(ModelSource source, const QString& path,
                                                        QString storeName) {
    const QString fileName = QFileInfo(path).fileName();
    // Ollama blobs have no extension; everywhere else only GGUF files are models, and of those
    // not the image projectors that vision models keep beside their weights.
    if (storeName.isEmpty() && (!isGgufName(fileName) || isLaterShard(fileName) ||
                                fileName.startsWith(QStringLiteral("mmproj"), Qt::CaseInsensitive))) {
        return std::nullopt;
    }
    const std::optional<RegularFileStat> stat = RegularFile::stat(path);
    if (!stat) {
        return std::nullopt; // a FIFO, a device, a dangling link (an unfinished cache download)
    }
    scannedStats_.insert(path, *stat);
    DiscoveredModel model;
    model.source = source;
    model.path = path;
    model.sizeBytes = stat->size;
    model.facts = inspect(path, *stat);
    if (!storeName.isEmpty()) {
        model.displayName = std::move(storeName);
    } else if (!model.facts.name.isEmpty()) {
        model.displayName = model.facts.name;
    } else {
        model.displayName = fileName;
    }
    return model;
}

ModelFileFacts ModelDiscovery::inspect(const QString& path, const RegularFileStat& stat) {
    // Keyed by the file itself, so links to one blob (snapshots of a cache) are read once.
    const QString key = identity(stat);
    const auto cached = cache_.constFind(key);
    if (cached != cache_.cend() && cached->stat.size == stat.size &&
        cached->stat.modifiedNanoseconds == stat.modifiedNanoseconds) {
        return cached->facts;
    }
    ModelFileFacts facts = inspector_->inspect(path);
    cache_.insert(key, CachedFacts{stat, facts});
    return facts;
}

} // namespace parlune
