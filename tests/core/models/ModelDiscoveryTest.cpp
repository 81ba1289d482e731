#include "core/models/ModelDiscovery.h"
#include "core/models/ModelScanner.h"
#include "core/models/OllamaManifest.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/TestFiles.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>
#include <sys/stat.h>
#include <unistd.h>

namespace parlune {
namespace {

// Reads "name|problem" from the file's first line, so each test file says what the engine
// would find in it; counts calls to show what the cache saves.
class FakeInspector final : public ModelFileInspector {
public:
    ModelFileFacts inspect(const QString& path) const override {
        ++calls;
        if (delayMs > 0) {
            QThread::msleep(delayMs);
        }
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        const QList<QByteArray> fields = file.readLine().trimmed().split('|');
        ModelFileFacts facts;
        facts.name = QString::fromUtf8(fields.value(0));
        facts.problem = QString::fromUtf8(fields.value(1));
        return facts;
    }
    mutable std::atomic<int> calls = 0;
    unsigned long delayMs = 0;
};

class ModelDiscoveryTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(home_.isValid());
        environment_.insert(QStringLiteral("HOME"), home_.path());
        inspector_ = std::make_shared<FakeInspector>();
    }

    QString path(const QString& relative) const { return home_.path() + u'/' + relative; }

    void write(const QString& relative, const QByteArray& content) {
        test::writeFile(path(relative), content);
    }

    void link(const QString& target, const QString& relative) {
        ASSERT_TRUE(QDir().mkpath(QFileInfo(path(relative)).path()));
        ASSERT_EQ(
            ::symlink(QFile::encodeName(target).constData(), QFile::encodeName(path(relative)).constData()),
            0);
    }

    static QByteArray manifest(const QByteArray& digestHex, qint64 size) {
        return R"({"schemaVersion":2,"layers":[)"
               R"({"mediaType":"application/vnd.ollama.image.template","digest":"sha256:)" +
               QByteArray(64, 'b') +
               R"(","size":10},)"
               R"({"mediaType":"application/vnd.ollama.image.model","digest":"sha256:)" +
               digestHex + R"(","size":)" + QByteArray::number(size) + "}]}";
    }

    // The system-wide Ollama store is outside the test's home; leave it out.
    QList<ModelStoreRoot> roots() const {
        QList<ModelStoreRoot> result = ModelStorePlaces::fromEnvironment(environment_);
        result.removeIf([](const ModelStoreRoot& root) { return root.source == ModelSource::ollamaService; });
        return result;
    }

    const DiscoveredModel* find(const QList<DiscoveredModel>& models, const QString& name) const {
        for (const DiscoveredModel& model : models) {
            if (model.displayName == name) {
                return &model;
            }
        }
        return nullptr;
    }

    QTemporaryDir home_;
    QProcessEnvironment environment_;
    std::shared_ptr<FakeInspector> inspector_;
};

TEST_F(ModelDiscoveryTest, PlacesFollowTheEnvironmentAndEachToolsOverride) {
    const auto pathOf = [](const QList<ModelStoreRoot>& roots, ModelSource source) {
        for (const ModelStoreRoot& root : roots) {
            if (root.source == source) {
                return root.path;
            }
        }
        return QString();
    };
    QProcessEnvironment environment;
    environment.insert(QStringLiteral("HOME"), QStringLiteral("/home/u"));
    environment.insert(QStringLiteral("XDG_DATA_HOME"), QStringLiteral("relative/ignored"));
    QList<ModelStoreRoot> roots = ModelStorePlaces::fromEnvironment(environment);
    EXPECT_EQ(pathOf(roots, ModelSource::parluneFolder),
              QStringLiteral("/home/u/.local/share/parlune/models"));
    EXPECT_EQ(pathOf(roots, ModelSource::huggingFaceCache), QStringLiteral("/home/u/.cache/huggingface/hub"));
    EXPECT_EQ(pathOf(roots, ModelSource::runtimeCache), QStringLiteral("/home/u/.cache/llama.cpp"));

    environment.insert(QStringLiteral("XDG_CACHE_HOME"), QStringLiteral("/c"));
    environment.insert(QStringLiteral("HF_HOME"), QStringLiteral("/hf"));
    environment.insert(QStringLiteral("OLLAMA_MODELS"), QStringLiteral("/usr/share/ollama/.ollama/models"));
    roots = ModelStorePlaces::fromEnvironment(environment);
    EXPECT_EQ(pathOf(roots, ModelSource::huggingFaceCache), QStringLiteral("/hf/hub"));
    EXPECT_EQ(pathOf(roots, ModelSource::runtimeCache), QStringLiteral("/c/llama.cpp"));
    EXPECT_EQ(pathOf(roots, ModelSource::ollamaService), QString()) << "the same store is scanned once";

    environment.insert(QStringLiteral("HF_HUB_CACHE"), QStringLiteral("/hub-only"));
    EXPECT_EQ(pathOf(ModelStorePlaces::fromEnvironment(environment), ModelSource::huggingFaceCache),
              QStringLiteral("/hub-only"));
}

TEST_F(ModelDiscoveryTest, FindsModelsInEveryStoreLayoutWithTheirNamesAndSources) {
    write(QStringLiteral(".local/share/parlune/models/own.gguf"), "Own Model|");
    write(QStringLiteral(".local/share/parlune/models/notes.txt"), "not a model");
    const QByteArray digest = QByteArray(64, 'a');
    write(QStringLiteral(".ollama/models/blobs/sha256-") + QString::fromLatin1(digest),
          "ignored-general-name|");
    write(QStringLiteral(".ollama/models/manifests/registry.ollama.ai/library/llama3.2/3b"),
          manifest(digest, 21));
    write(QStringLiteral(".ollama/models/manifests/registry.ollama.ai/someone/tuned/latest"),
          manifest(digest, 21));
    write(QStringLiteral(".lmstudio/models/publisher/Repo-GGUF/repo-Q4_K_M.gguf"), "|");
    write(QStringLiteral(".lmstudio/models/publisher/Repo-GGUF/mmproj-repo-f16.gguf"), "Projector|");
    write(QStringLiteral(".cache/huggingface/hub/models--org--Small-GGUF/blobs/0123"),
          "Small|no chat template");
    link(QStringLiteral("../../blobs/0123"),
         QStringLiteral(".cache/huggingface/hub/models--org--Small-GGUF/snapshots/rev1/small-q8_0.gguf"));
    link(QStringLiteral("../../blobs/0123"),
         QStringLiteral(".cache/huggingface/hub/models--org--Small-GGUF/snapshots/rev2/small-q8_0.gguf"));
    write(QStringLiteral(".local/share/nomic.ai/GPT4All/chat.gguf"), "Chat|");
    write(QStringLiteral("jan/models/some-id/model.gguf"), "Jan Model|");
    write(QStringLiteral(".cache/llama.cpp/org_repo_file-00001-of-00002.gguf"), "Split|");
    write(QStringLiteral(".cache/llama.cpp/org_repo_file-00002-of-00002.gguf"), "Second part|");

    const QList<DiscoveredModel> models = ModelDiscovery(inspector_).scan(roots());

    QStringList names;
    for (const DiscoveredModel& model : models) {
        names << model.displayName;
    }
    EXPECT_EQ(names, (QStringList{QStringLiteral("Own Model"), QStringLiteral("llama3.2:3b"),
                                  QStringLiteral("someone/tuned:latest"), QStringLiteral("repo-Q4_K_M.gguf"),
                                  QStringLiteral("Small"), QStringLiteral("Chat"),
                                  QStringLiteral("Jan Model"), QStringLiteral("Split")}));
    const DiscoveredModel* ollama = find(models, QStringLiteral("llama3.2:3b"));
    ASSERT_NE(ollama, nullptr);
    EXPECT_EQ(ollama->source, ModelSource::ollama);
    EXPECT_EQ(ollama->path,
              path(QStringLiteral(".ollama/models/blobs/sha256-")) + QString::fromLatin1(digest));
    EXPECT_EQ(ollama->sizeBytes, 21);
    EXPECT_TRUE(ollama->usable());
    const DiscoveredModel* cached = find(models, QStringLiteral("Small"));
    ASSERT_NE(cached, nullptr);
    EXPECT_EQ(cached->source, ModelSource::huggingFaceCache);
    EXPECT_EQ(cached->facts.problem, QStringLiteral("no chat template"));
    EXPECT_TRUE(cached->path.endsWith(QStringLiteral("snapshots/rev1/small-q8_0.gguf")))
        << cached->path.toStdString();
}

TEST_F(ModelDiscoveryTest, BrokenOllamaStoresGiveReasonsNotCrashes) {
    const QString manifests = QStringLiteral(".ollama/models/manifests/registry.ollama.ai/library/");
    write(manifests + QStringLiteral("truncated/latest"), R"({"layers":[{"mediaType":)");
    write(
        manifests + QStringLiteral("escape/latest"),
        R"({"layers":[{"mediaType":"application/vnd.ollama.image.model","digest":"sha256:../../../etc/passwd"}]})");
    write(manifests + QStringLiteral("nomodel/latest"), R"({"layers":[]})");
    write(manifests + QStringLiteral("missing/latest"), manifest(QByteArray(64, 'c'), 5));
    write(QStringLiteral(".ollama/models/blobs/sha256-") + QString(64, u'd'), "partial|");
    write(manifests + QStringLiteral("short/latest"), manifest(QByteArray(64, 'd'), 1'000'000));
    write(manifests + QStringLiteral("huge/latest"), QByteArray(OllamaManifest::maxManifestBytes + 1, ' '));

    const QList<DiscoveredModel> models = ModelDiscovery(inspector_).scan(roots());

    ASSERT_EQ(models.size(), 6);
    const auto problemOf = [&](const char* name) {
        const DiscoveredModel* model = find(models, QString::fromLatin1(name) + QStringLiteral(":latest"));
        return model ? model->facts.problem : QStringLiteral("<not listed>");
    };
    EXPECT_TRUE(problemOf("truncated").startsWith(QStringLiteral("the manifest is not valid JSON")))
        << problemOf("truncated").toStdString();
    EXPECT_EQ(problemOf("escape"), QStringLiteral("the manifest's model layer has a malformed digest"));
    EXPECT_EQ(problemOf("nomodel"), QStringLiteral("the manifest has no model layer"));
    EXPECT_EQ(problemOf("missing"), QStringLiteral("the model file the manifest names is missing"));
    EXPECT_EQ(
        problemOf("short"),
        QStringLiteral("the model file is 8 bytes but the manifest says 1000000 (an unfinished download?)"));
    EXPECT_TRUE(problemOf("huge").startsWith(QStringLiteral("the manifest is 1048577 bytes")))
        << problemOf("huge").toStdString();
    EXPECT_EQ(inspector_->calls, 0) << "no broken entry reaches the engine";
}

TEST_F(ModelDiscoveryTest, FifosAreNeitherListedNorWaitedOn) {
    ASSERT_TRUE(QDir().mkpath(path(QStringLiteral(".local/share/parlune/models"))));
    ASSERT_TRUE(
        QDir().mkpath(path(QStringLiteral(".ollama/models/manifests/registry.ollama.ai/library/pipe"))));
    ASSERT_EQ(
        ::mkfifo(QFile::encodeName(path(QStringLiteral(".local/share/parlune/models/pipe.gguf"))).constData(),
                 0600),
        0);
    ASSERT_EQ(
        ::mkfifo(QFile::encodeName(
                     path(QStringLiteral(".ollama/models/manifests/registry.ollama.ai/library/pipe/latest")))
                     .constData(),
                 0600),
        0);

    const QList<DiscoveredModel> models = ModelDiscovery(inspector_).scan(roots());

    ASSERT_EQ(models.size(), 1);
    EXPECT_EQ(models[0].displayName, QStringLiteral("pipe:latest"));
    EXPECT_EQ(models[0].facts.problem, QStringLiteral("the manifest is not a regular file"));
}

TEST_F(ModelDiscoveryTest, RescansInspectOnlyFilesThatChanged) {
    write(QStringLiteral(".local/share/parlune/models/a.gguf"), "A|");
    write(QStringLiteral(".local/share/parlune/models/b.gguf"), "B|");
    for (const char* repository : {"one", "two", "three"}) {
        link(path(QStringLiteral(".local/share/parlune/models/b.gguf")),
             QStringLiteral(".lmstudio/models/p/%1/b.gguf").arg(QLatin1String(repository)));
    }
    ModelDiscovery discovery(inspector_);
    EXPECT_EQ(discovery.scan(roots()).size(), 2)
        << "links to a listed file under its name are not listed again";
    EXPECT_EQ(inspector_->calls, 2) << "nor read again";

    EXPECT_EQ(discovery.scan(roots()).size(), 2);
    EXPECT_EQ(inspector_->calls, 2);

    write(QStringLiteral(".local/share/parlune/models/b.gguf"), "B changed|broken now");
    const QList<DiscoveredModel> models = discovery.scan(roots());
    EXPECT_EQ(inspector_->calls, 3);
    ASSERT_EQ(models.size(), 2);
    EXPECT_EQ(models[1].facts.problem, QStringLiteral("broken now"));
}

TEST_F(ModelDiscoveryTest, TheScannerWorksOffTheMainThreadAndFoldsRescansAskedMeanwhile) {
    write(QStringLiteral(".local/share/parlune/models/a.gguf"), "A|");
    inspector_->delayMs = 300;
    ModelScanner scanner(inspector_, roots());
    int results = 0;
    const Subscription subscription =
        scanner.scanned.connect([&](const QList<DiscoveredModel>&) { ++results; });

    scanner.rescan();
    EXPECT_TRUE(scanner.scanning()) << "rescan returns before the disk is read";
    EXPECT_TRUE(scanner.models().isEmpty());
    write(QStringLiteral(".local/share/parlune/models/b.gguf"), "B|");
    scanner.rescan();
    scanner.rescan();

    ASSERT_TRUE(test::pumpUntil([&] { return results == 2 && !scanner.scanning(); }, 10000));
    EXPECT_EQ(scanner.models().size(), 2);
    EXPECT_EQ(inspector_->calls, 2) << "the second scan reused what the first one read";
    QCoreApplication::processEvents();
    EXPECT_EQ(results, 2);
}

} // namespace
} // namespace parlune
