#include "inference/LlmModelFileInspector.h"
#include "core/models/ModelDiscovery.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/testing/TestModelMaker.h"
#include "support/QtPrinters.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <unistd.h>

namespace parlune {
namespace {

QString fixture(const char* name) {
    return QStringLiteral(PARLUNE_LLM_FIXTURES "/models/") + QString::fromLatin1(name);
}

class LlmModelFileInspectorTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!QFile::exists(fixture("qwen2-tiny-Q8_0.gguf"))) {
            GTEST_SKIP() << "engine fixtures not found at " PARLUNE_LLM_FIXTURES;
        }
    }
    LlmModelFileInspector inspector_;
};

TEST_F(LlmModelFileInspectorTest, ReportsTheFactsOfARunnableModel) {
    const ModelFileFacts facts = inspector_.inspect(fixture("qwen2-tiny-Q8_0.gguf"));
    EXPECT_TRUE(facts.usable()) << facts.problem.toStdString();
    EXPECT_EQ(facts.architecture, QStringLiteral("qwen2"));
    EXPECT_EQ(facts.weightType, QStringLiteral("Q8_0"));
    EXPECT_GT(facts.contextLength, 0);
    EXPECT_TRUE(facts.hasChatTemplate);
}

TEST_F(LlmModelFileInspectorTest, NamesWhyAFileCannotBeRun) {
    const ModelFileFacts noTemplate = inspector_.inspect(fixture("llama-tiny-Q8_0.gguf"));
    EXPECT_EQ(noTemplate.problem, QStringLiteral("the file has no chat template"));
    EXPECT_EQ(noTemplate.architecture, QStringLiteral("llama"));
    EXPECT_FALSE(noTemplate.hasChatTemplate);

    // A real file of a supported family, relabelled as one the engine does not run.
    QTemporaryDir folder;
    llm::GgufWriter relabelled =
        llm::TestModelMaker::build(*llm::TestModelRecipe::shape("tiny", llm::Architecture::qwen2));
    relabelled.setString("general.architecture", "mamba");
    const QString mamba = folder.filePath(QStringLiteral("mamba.gguf"));
    relabelled.write(mamba.toStdString());
    const ModelFileFacts otherArchitecture = inspector_.inspect(mamba);
    EXPECT_TRUE(otherArchitecture.problem.contains(QStringLiteral("mamba")))
        << otherArchitecture.problem.toStdString();
    EXPECT_EQ(otherArchitecture.architecture, QStringLiteral("mamba"));
    EXPECT_TRUE(otherArchitecture.hasChatTemplate);

    QFile text(folder.filePath(QStringLiteral("notes.gguf")));
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.write("these are notes, not a model\n");
    text.close();
    const ModelFileFacts notGguf = inspector_.inspect(text.fileName());
    EXPECT_FALSE(notGguf.usable());
    EXPECT_TRUE(notGguf.architecture.isEmpty());
}

TEST_F(LlmModelFileInspectorTest, DiscoveryFindsARunnableModelInAnOllamaStore) {
    QTemporaryDir home;
    const QString store = home.path() + QStringLiteral("/.ollama/models");
    const QString digest(64, u'e');
    ASSERT_TRUE(QDir().mkpath(store + QStringLiteral("/blobs")));
    ASSERT_TRUE(QDir().mkpath(store + QStringLiteral("/manifests/registry.ollama.ai/library/qwen3")));
    ASSERT_EQ(::symlink(QFile::encodeName(fixture("qwen3-tiny-Q8_0.gguf")).constData(),
                        QFile::encodeName(store + QStringLiteral("/blobs/sha256-") + digest).constData()),
              0);
    QFile manifest(store + QStringLiteral("/manifests/registry.ollama.ai/library/qwen3/tiny"));
    ASSERT_TRUE(manifest.open(QIODevice::WriteOnly));
    manifest.write(R"({"layers":[{"mediaType":"application/vnd.ollama.image.model","digest":"sha256:)" +
                   digest.toLatin1() + R"("}]})");
    manifest.close();

    const QList<DiscoveredModel> models =
        ModelDiscovery(std::make_shared<LlmModelFileInspector>()).scan({{ModelSource::ollama, store}});

    ASSERT_EQ(models.size(), 1);
    EXPECT_EQ(models[0].displayName, QStringLiteral("qwen3:tiny"));
    EXPECT_TRUE(models[0].usable()) << models[0].facts.problem.toStdString();
    EXPECT_EQ(models[0].facts.architecture, QStringLiteral("qwen3"));
    EXPECT_EQ(models[0].sizeBytes, QFileInfo(fixture("qwen3-tiny-Q8_0.gguf")).size());
}

} // namespace
} // namespace parlune
