#include "inference/LlmModelFileInspector.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/testing/TestModelMaker.h"
#include "support/QtPrinters.h"

#include <QFile>
#include <QTemporaryDir>

#include <gtest/gtest.h>

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
}

} // namespace
} // namespace parlune
