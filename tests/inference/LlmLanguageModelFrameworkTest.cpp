#include "inference/LlmLanguageModelFramework.h"

#include "TinyModelFiles.h"
#include "core/async/CancellationError.h"
#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/engine/ImprovedPromptOutput.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/engine/OnDeviceModelClient.h"
#include "core/engine/RewriteOutputValidator.h"
#include "core/engine/RewritePrompt.h"
#include "inference/LlmLanguageModelSession.h"
#include "inference/ModelLocator.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/testing/TestModelMaker.h"
#include "support/RunTask.h"
#include "support/ScriptedLanguageModelFramework.h"

#include <QLocale>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

namespace parlune {
namespace {

using EngineKind = LocalRewriteEngineError::Kind;
using FrameworkKind = LanguageModelGenerationError::Kind;

using test::greedy;
using test::optionsFor;
using test::writeTinyModel;

template <typename T> std::optional<FrameworkKind> frameworkKindOf(QCoro::Task<T>&& task) {
    try {
        (void)test::runTask(std::move(task));
    } catch (const LanguageModelGenerationError& failure) {
        return failure.kind();
    }
    return std::nullopt;
}

std::optional<EngineKind> engineKindOf(QCoro::Task<QString>&& task) {
    try {
        (void)test::runTask(std::move(task));
    } catch (const LocalRewriteEngineError& failure) {
        return failure.kind();
    }
    return std::nullopt;
}

const QString text = QStringLiteral("Please could you make this sentence somewhat shorter for me.");

// The answer the model gives to exactly the client's texts and budget for "Make concise",
// cleaned the same way, computed by a framework of its own.
QString expectedConciseRewrite(const std::filesystem::path& path, const QString& selection) {
    const QString instructions = RewritePrompt::rewriteInstructions(RewriteMode::makeConcise, {});
    LlmLanguageModelFramework reference(optionsFor(path));
    const std::int64_t budget = RewritePrompt::estimatedTokenCount(selection) * 2 + 32;
    return RewriteOutputValidator::cleanedRewrite(
        test::runTask(reference.openSession(instructions)
                          ->respond(RewritePrompt::prompt(selection), greedy(budget), {})),
        selection);
}

class LlmFrameworkTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(folder.isValid());
        modelPath = writeTinyModel(std::filesystem::path(folder.path().toStdString()) / "tiny.gguf");
    }

    QTemporaryDir folder;
    std::filesystem::path modelPath;
};

TEST_F(LlmFrameworkTest, DiscoveryPrefersExplicitChoicesAndExplainsUnusableFiles) {
    const std::filesystem::path models = std::filesystem::path(folder.path().toStdString()) / "models";
    std::filesystem::create_directories(models);
    ModelLocator::Places places{{}, {}, models};
    EXPECT_FALSE(ModelLocator::choose(places));

    std::ofstream(models / "a-broken.gguf") << "not a model at all";
    std::ofstream(models / "notes.txt") << "ignored";
    std::filesystem::copy_file(modelPath, models / "b-good.gguf");
    const std::vector<ModelFileReport> found = ModelLocator::survey(places);
    ASSERT_EQ(found.size(), 2u);
    EXPECT_FALSE(found[0].usable());
    EXPECT_FALSE(found[0].problem.empty());
    EXPECT_TRUE(found[1].usable()) << found[1].problem;
    EXPECT_EQ(found[1].architecture, "qwen2");
    EXPECT_EQ(ModelLocator::choose(places)->path, models / "b-good.gguf");

    // An explicit choice stands even when it cannot be used: the user asked for that file.
    places.environmentPath = (models / "a-broken.gguf").string();
    EXPECT_EQ(ModelLocator::choose(places)->path, models / "a-broken.gguf");
    places.settingPath = (models / "missing.gguf").string();
    EXPECT_EQ(ModelLocator::choose(places)->problem, "no such file");
    EXPECT_EQ(ModelLocator::survey(places).size(), 4u);
}

TEST_F(LlmFrameworkTest, OneLoadDecidesUsabilityForDiscoveryAvailabilityAndRewrites) {
    const std::filesystem::path dir(folder.path().toStdString());
    // Metadata that reads fine, a tensor table that cannot hold it: only a real load tells.
    llm::GgufWriter writer =
        llm::TestModelMaker::build(*llm::TestModelRecipe::shape("tiny", llm::Architecture::qwen2));
    writer.setUInt32("qwen2.block_count", 5);
    writer.write(dir / "three-layers.gguf");
    const ModelFileReport report =
        ModelLocator::inspect(dir / "three-layers.gguf", ModelFileReport::Source::setting);
    EXPECT_FALSE(report.usable());
    EXPECT_NE(report.problem.find("says 5 layers"), std::string::npos) << report.problem;

    LlmLanguageModelFramework framework(optionsFor(dir / "three-layers.gguf"));
    OnDeviceModelClient client(framework, nullptr);
    EXPECT_EQ(client.availability(), LocalModelAvailability::modelNotReady);
    EXPECT_EQ(client.availabilityDetail().toStdString(), report.explanation());
    try {
        (void)test::runTask(client.rewrite(QStringLiteral("Some words"), RewriteMode::casual, {}, {}));
        FAIL() << "an unusable file cannot rewrite";
    } catch (const LocalRewriteEngineError& failure) {
        EXPECT_EQ(failure.kind(), EngineKind::modelNotReady);
        EXPECT_EQ(UserFacingErrorMessage::detail(std::current_exception()).toStdString(),
                  report.explanation());
    }

    // The report is kept while the file stays the same and made again when it is replaced.
    std::filesystem::copy_file(modelPath, dir / "three-layers.gguf",
                               std::filesystem::copy_options::overwrite_existing);
    EXPECT_TRUE(ModelLocator::inspect(dir / "three-layers.gguf", ModelFileReport::Source::setting).usable());

    // Control characters in a file's name never reach a terminal.
    llm::GgufWriter named =
        llm::TestModelMaker::build(*llm::TestModelRecipe::shape("tiny", llm::Architecture::qwen2));
    named.setString("general.name", "\x1b]0;pwned\x07\x1b[2J" + std::string(5000, 'n'));
    named.write(dir / "named.gguf");
    const ModelFileReport shown = ModelLocator::inspect(dir / "named.gguf", ModelFileReport::Source::setting);
    ASSERT_TRUE(shown.usable()) << shown.problem;
    EXPECT_EQ(shown.name.find('\x1b'), std::string::npos);
    EXPECT_TRUE(shown.name.starts_with("\\x1b]0;pwned\\x07\\x1b[2J")) << shown.name;
    EXPECT_LT(shown.name.size(), 300u);
}

TEST_F(LlmFrameworkTest, AvailabilityReasonsAndLanguages) {
    const std::filesystem::path dir(folder.path().toStdString());
    LlmLanguageModelFramework missing(optionsFor(dir / "missing.gguf"));
    EXPECT_EQ(missing.availability().unavailableReason, LanguageModelUnavailableReason::modelNotReady);
    EXPECT_TRUE(
        missing.availability().detail.endsWith(QStringLiteral("missing.gguf cannot be used: no such file.")))
        << missing.availability().detail.toStdString();
    EXPECT_EQ(frameworkKindOf(
                  missing.openSession(QStringLiteral("x"))->respond(QStringLiteral("y"), greedy(4), {})),
              FrameworkKind::assetsUnavailable);

    LlmLanguageModelFramework good(optionsFor(modelPath));
    EXPECT_EQ(good.availability().isAvailable(), LlmLanguageModelFramework::processorIsEligible());
    EXPECT_EQ(good.contextSize(), 2048);
    EXPECT_TRUE(good.supportsCurrentLocale()); // the file states no languages

    LlmLanguageModelFramework foreign(optionsFor(writeTinyModel(dir / "xx.gguf", 2048, {"xx"})));
    QLocale::setDefault(QLocale(QStringLiteral("en_US")));
    EXPECT_FALSE(foreign.supportsCurrentLocale());
    EXPECT_TRUE(LlmLanguageModelFramework::coversLanguage({"en", "fr"}, QStringLiteral("fr_CA")));
    EXPECT_FALSE(LlmLanguageModelFramework::coversLanguage({"en-US"}, QStringLiteral("de_DE")));
    EXPECT_TRUE(LlmLanguageModelFramework::coversLanguage({"EN-us"}, QStringLiteral("en_GB")));
}

TEST_F(LlmFrameworkTest, TokenCountsAddUpToThePromptActuallyProcessed) {
    LlmLanguageModelFramework framework(optionsFor(modelPath));
    const QString instructions =
        RewritePrompt::rewriteInstructions(RewriteMode::casual, QStringLiteral("Warm tone"));
    const QString prompt = RewritePrompt::prompt(QStringLiteral("Hello <|im_end|> there"));
    const std::int64_t counted = test::runTask(framework.tokenCountOfInstructions(instructions, {})) +
                                 test::runTask(framework.tokenCountOfPrompt(prompt, {}));
    (void)test::runTask(framework.openSession(instructions)->respond(prompt, greedy(2), {}));
    ASSERT_TRUE(framework.lastResponse());
    EXPECT_EQ(counted, framework.lastResponse()->promptTokens);
    EXPECT_GT(test::runTask(framework.tokenCountOfSchema(ImprovedPromptOutput::schema(), {})), 20);
}

TEST_F(LlmFrameworkTest, CachedInstructionsGiveTheSameAnswerAsAColdStart) {
    test::ManualMemoryPressureSource pressure;
    LlmInference::Options options = optionsFor(modelPath);
    options.memoryPressure = &pressure;
    LlmLanguageModelFramework framework(std::move(options));
    const QString instructions = RewritePrompt::rewriteInstructions(RewriteMode::makeConcise, {});
    const QString prompt = RewritePrompt::prompt(QStringLiteral("A sentence that could be shorter."));

    const QString cold = test::runTask(framework.openSession(instructions)->respond(prompt, greedy(24), {}));
    const LlmResponse first = *framework.lastResponse();
    EXPECT_EQ(first.promptTokensReused, 0);
    EXPECT_EQ(framework.prefixCache().size(), 1u);

    const QString warm = test::runTask(framework.openSession(instructions)->respond(prompt, greedy(24), {}));
    EXPECT_GT(framework.lastResponse()->promptTokensReused, 0);
    EXPECT_LT(framework.lastResponse()->promptTokensReused, first.promptTokens);
    EXPECT_EQ(warm, cold);

    pressure.fire(MemoryPressureLevel::warning);
    EXPECT_EQ(framework.prefixCache().size(), 0u);
    // A prewarmed session starts from its instructions' state.
    const auto session = framework.openSession(RewritePrompt::rewriteInstructions(RewriteMode::casual, {}));
    session->prewarm(QStringLiteral("ignored"));
    (void)test::runTask(session->respond(prompt, greedy(4), {}));
    EXPECT_GT(framework.lastResponse()->promptTokensReused, 0);
}

TEST_F(LlmFrameworkTest, SchemaResponsesAlwaysParseWithinTheTokenLimit) {
    LlmLanguageModelFramework framework(optionsFor(modelPath));
    const GenerationSchema& schema = ImprovedPromptOutput::schema();
    const QString instructions = RewritePrompt::rewriteInstructions(RewriteMode::improvePrompt, {});
    for (const std::int64_t limit : {24, 64}) {
        for (const char* text : {"explain \"quotes\" and \\ slashes", "caf\xC3\xA9 na\xC3\xAFve"}) {
            const GeneratedContent content =
                test::runTask(framework.openSession(instructions)
                                  ->respond(RewritePrompt::prompt(QString::fromUtf8(text)), schema, true,
                                            greedy(limit), {}));
            EXPECT_EQ(content.size(), 1u);
            EXPECT_TRUE(content.contains(ImprovedPromptOutput::propertyName()));
            EXPECT_LE(framework.lastResponse()->tokens, limit);
        }
    }
    EXPECT_EQ(LlmLanguageModelSession::parseGeneratedObject(R"({"rewrittenPrompt":"a\nb"})", schema)
                  .at(ImprovedPromptOutput::propertyName()),
              QStringLiteral("a\nb"));
    EXPECT_THROW(LlmLanguageModelSession::parseGeneratedObject(R"({"other":"a"})", schema),
                 LanguageModelGenerationError);
}

TEST_F(LlmFrameworkTest, GuessesFromThePromptChangeModelRunsNotAnswers) {
    // A tied random model repeats itself, so guesses are taken. Answers under the JSON constraint
    // are compared at the engine (DraftedGeneration) and parse here with guesses on.
    const std::filesystem::path tied = std::filesystem::path(folder.path().toStdString()) / "tied.gguf";
    llm::TestModelMaker::build(*llm::TestModelRecipe::shape("tiny", llm::Architecture::qwen2)).write(tied);
    const QString instructions = RewritePrompt::rewriteInstructions(RewriteMode::improvePrompt, {});
    const QString prompt = RewritePrompt::prompt(QStringLiteral("plan a trip, plan a trip to the sea"));
    LlmInference::Options plainOptions = optionsFor(tied);
    plainOptions.draftFromPrompt = false;
    LlmLanguageModelFramework plain(std::move(plainOptions));
    LlmLanguageModelFramework drafted(optionsFor(tied));

    const QString plainText = test::runTask(plain.openSession(instructions)->respond(prompt, greedy(40), {}));
    const LlmResponse plainRun = *plain.lastResponse();
    const QString draftedText =
        test::runTask(drafted.openSession(instructions)->respond(prompt, greedy(40), {}));
    const LlmResponse draftedRun = *drafted.lastResponse();
    EXPECT_EQ(draftedText, plainText);
    EXPECT_EQ(plainRun.draftTokensProposed, 0);
    EXPECT_GT(draftedRun.draftTokensAccepted, 0);
    EXPECT_EQ(draftedRun.forwardPasses + draftedRun.draftTokensAccepted, plainRun.forwardPasses);
}

TEST_F(LlmFrameworkTest, ContextOverflowConcurrencyAndCancellation) {
    const std::filesystem::path dir(folder.path().toStdString());
    LlmLanguageModelFramework small(optionsFor(writeTinyModel(dir / "small.gguf", 64)));
    const QString longText = QString(QStringLiteral("word ")).repeated(80);
    EXPECT_EQ(
        frameworkKindOf(small.openSession(QStringLiteral("Be brief."))->respond(longText, greedy(8), {})),
        FrameworkKind::exceededContextWindowSize);

    LlmLanguageModelFramework framework(optionsFor(modelPath));
    const auto session = framework.openSession(QStringLiteral("Be brief."));
    std::stop_source stop;
    QCoro::Task<QString> running =
        session->respond(QStringLiteral("Go on and on."), greedy(2000), stop.get_token());
    EXPECT_EQ(frameworkKindOf(session->respond(QStringLiteral("Again"), greedy(4), {})),
              FrameworkKind::concurrentRequests);
    stop.request_stop();
    EXPECT_THROW((void)test::runTask(std::move(running)), CancellationError);
    EXPECT_NO_THROW((void)test::runTask(session->respond(QStringLiteral("Again"), greedy(4), {})));
}

// The client's whole rewrite on a model file, cache included: the built-in test vocabulary
// here, and below the families the engine supports, each with its real vocabulary and chat
// template from the shared fixtures.
void expectRewritesEndToEnd(const std::filesystem::path& path, std::string_view architecture) {
    const ModelFileReport report = ModelLocator::inspect(path, ModelFileReport::Source::setting);
    ASSERT_TRUE(report.usable()) << report.problem;
    EXPECT_EQ(report.architecture, architecture);

    LlmLanguageModelFramework framework(optionsFor(path));
    OnDeviceModelClient client(framework, nullptr);
    const QString expected = expectedConciseRewrite(path, text);
    ASSERT_FALSE(expected.trimmed().isEmpty());
    EXPECT_EQ(test::runTask(client.rewrite(text, RewriteMode::makeConcise, {}, {})), expected);
    EXPECT_EQ(test::runTask(client.rewrite(text, RewriteMode::makeConcise, {}, {})), expected);
    EXPECT_GT(framework.lastResponse()->promptTokensReused, 0);
    EXPECT_TRUE(client.isWarm());
}

TEST_F(LlmFrameworkTest, RewritesEndToEndThroughTheClient) {
    if (!LlmLanguageModelFramework::processorIsEligible()) {
        GTEST_SKIP() << "this processor lacks AVX2/FMA, so the model reports itself unavailable";
    }
    expectRewritesEndToEnd(modelPath, "qwen2");
    // Far too long for a 2048-token window once counted exactly.
    LlmLanguageModelFramework framework(optionsFor(modelPath));
    OnDeviceModelClient client(framework, nullptr);
    EXPECT_EQ(engineKindOf(client.rewrite(QString(QStringLiteral("word ")).repeated(290), RewriteMode::casual,
                                          {}, {})),
              EngineKind::selectionTooLong);
}

struct FamilyCase {
    const char* name;
    llm::Architecture architecture;
    const char* vocabulary;   // under ../shared/llm/vocab, empty for the built-in ChatML one
    const char* chatTemplate; // under ../shared/llm/templates
};

class FamilyRewriteTest : public ::testing::TestWithParam<FamilyCase> {};

TEST_P(FamilyRewriteTest, RewritesEndToEndWithItsRealTemplate) {
    const std::filesystem::path fixtures = PARLUNE_LLM_FIXTURES;
    if (!std::filesystem::is_directory(fixtures / "templates")) {
        GTEST_SKIP() << "shared engine fixtures not found at " << fixtures << " (a plain clone has none)";
    }
    if (!LlmLanguageModelFramework::processorIsEligible()) {
        GTEST_SKIP() << "this processor lacks AVX2/FMA, so the model reports itself unavailable";
    }
    const FamilyCase& c = GetParam();
    QTemporaryDir folder;
    ASSERT_TRUE(folder.isValid());
    llm::TestModelRecipe recipe = *llm::TestModelRecipe::shape("tiny", c.architecture);
    recipe.weights.type = llm::GgmlType::Q8_0;
    recipe.tiedOutput = false;
    if (*c.vocabulary) {
        recipe.vocabularyFile = fixtures / "vocab" / c.vocabulary;
    }
    std::ifstream templateFile(fixtures / "templates" / c.chatTemplate);
    recipe.chatTemplate.assign(std::istreambuf_iterator<char>(templateFile),
                               std::istreambuf_iterator<char>());
    const std::filesystem::path path = std::filesystem::path(folder.path().toStdString()) / "model.gguf";
    llm::TestModelMaker::write(recipe, path);

    expectRewritesEndToEnd(path, llm::architectureName(c.architecture));
}

INSTANTIATE_TEST_SUITE_P(
    Families, FamilyRewriteTest,
    ::testing::Values(FamilyCase{"qwen3", llm::Architecture::qwen3, "", "Qwen-Qwen3-0.6B.jinja"},
                      FamilyCase{"phi3", llm::Architecture::phi3, "ggml-vocab-phi-3.gguf",
                                 "microsoft-Phi-3.5-mini-instruct.jinja"},
                      FamilyCase{"smollm3", llm::Architecture::llama, "", "HuggingFaceTB-SmolLM3-3B.jinja"}),
    [](const ::testing::TestParamInfo<FamilyCase>& test) { return std::string(test.param.name); });

// The shared random-weight files of the families, as a user would install them.
class FixtureModelRewriteTest : public ::testing::TestWithParam<const char*> {};

TEST_P(FixtureModelRewriteTest, RewritesEndToEnd) {
    const std::filesystem::path path = std::filesystem::path(PARLUNE_LLM_FIXTURES) / "models" / GetParam();
    if (!std::filesystem::exists(path)) {
        GTEST_SKIP() << "shared engine fixture " << path << " not found (a plain clone has none)";
    }
    if (!LlmLanguageModelFramework::processorIsEligible()) {
        GTEST_SKIP() << "this processor lacks AVX2/FMA, so the model reports itself unavailable";
    }
    const std::string name = GetParam();
    expectRewritesEndToEnd(path, name.substr(0, name.find('-')));
}

INSTANTIATE_TEST_SUITE_P(Families, FixtureModelRewriteTest,
                         ::testing::Values("gemma3-tiny-Q8_0.gguf", "phi3-tiny-Q8_0.gguf",
                                           "qwen3-tiny-Q8_0.gguf"));

} // namespace
} // namespace parlune
