// Generation with guesses from the prompt must give exactly the tokens plain greedy decoding gives,
// on every architecture, with and without the JSON constraint, and at every edge where a guess
// meets the end of the answer, the token budget or the context.
#include "../model/TinyModel.h"

#include "llm/constrained/JsonObjectConstraint.h"
#include "llm/constrained/TokenByteTable.h"
#include "llm/gguf/GgufFile.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/runtime/GenerationSession.h"
#include "llm/runtime/PromptLookupDraft.h"
#include "llm/tokenizer/Tokenizer.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>
#include <string>
#include <vector>

namespace parlune::llm {
namespace {

using testing::makeTinyModel;
using testing::tinySpec;

struct Totals {
    std::int64_t proposed = 0;
    std::int64_t accepted = 0;
    std::int64_t passes = 0;
    std::int64_t tokens = 0;
};

// Text of `words` random words, some phrases repeated, the way prose repeats itself.
std::string randomText(std::mt19937& rng, int words) {
    static const char* const vocabulary[] = {"the",  "report", "was",   "late", "because", "our",
                                             "team", "had",    "to",    "fix",  "a",       "bug",
                                             "in",   "every",  "build", "and",  "then",    "ship"};
    std::uniform_int_distribution<std::size_t> pick(0, std::size(vocabulary) - 1);
    std::vector<std::string> out;
    while (static_cast<int>(out.size()) < words) {
        if (out.size() > 4 && rng() % 4 == 0) {
            const std::size_t from = rng() % (out.size() - 3);
            out.insert(out.end(), out.begin() + static_cast<std::ptrdiff_t>(from),
                       out.begin() + static_cast<std::ptrdiff_t>(from + 3));
        } else {
            out.emplace_back(vocabulary[pick(rng)]);
        }
    }
    std::string text;
    for (const std::string& word : out)
        text += (text.empty() ? "" : " ") + word;
    return text;
}

// Runs `prompt` plainly and with guesses (from the prompt, unless given) and expects the same
// answer.
void expectSameAnswer(const std::shared_ptr<const Model>& model,
                      const std::shared_ptr<const Tokenizer>& tokenizer, ThreadPool& pool,
                      std::span<const std::int32_t> prompt, GenerationOptions options, Totals& totals,
                      const std::vector<std::string>& jsonProperties = {}, DraftSource* guesses = nullptr) {
    std::shared_ptr<const TokenByteTable> table;
    std::optional<JsonObjectConstraint> plainConstraint, draftedConstraint;
    if (!jsonProperties.empty()) {
        table = std::make_shared<const TokenByteTable>(*tokenizer);
        plainConstraint.emplace(table, jsonProperties);
        draftedConstraint.emplace(table, jsonProperties);
    }
    options.constraint = plainConstraint ? &*plainConstraint : nullptr;
    GenerationSession plainSession(model, tokenizer, pool);
    const GenerationResult plain = plainSession.generate(prompt, options, {});

    PromptLookupDraft draft;
    options.draft = guesses ? guesses : &draft;
    options.maxDraftTokens = 8;
    options.constraint = draftedConstraint ? &*draftedConstraint : nullptr;
    GenerationSession draftedSession(model, tokenizer, pool);
    const GenerationResult drafted = draftedSession.generate(prompt, options, {});

    ASSERT_EQ(drafted.tokens, plain.tokens);
    EXPECT_EQ(drafted.text, plain.text);
    EXPECT_EQ(drafted.stopReason, plain.stopReason);
    EXPECT_EQ(draftedSession.tokens(), plainSession.tokens());
    if (plainConstraint) {
        EXPECT_EQ(draftedConstraint->text(), plainConstraint->text());
        EXPECT_EQ(draftedConstraint->isComplete(), plainConstraint->isComplete());
    }
    // Every token the guesses held is one model run fewer.
    EXPECT_EQ(plain.draftTokensProposed, 0);
    EXPECT_EQ(drafted.forwardPasses + drafted.draftTokensAccepted, plain.forwardPasses);
    EXPECT_LE(drafted.draftTokensAccepted, drafted.draftTokensProposed);
    totals.proposed += drafted.draftTokensProposed;
    totals.accepted += drafted.draftTokensAccepted;
    totals.passes += plain.forwardPasses - drafted.forwardPasses;
    totals.tokens += static_cast<std::int64_t>(plain.tokens.size());
}

std::vector<std::int32_t> rewritePrompt(const Tokenizer& tokenizer, std::mt19937& rng) {
    const std::string selection = randomText(rng, 20 + static_cast<int>(rng() % 40));
    return tokenizer.encode("Rewrite this text:\n" + selection + "\nRewritten:\n" +
                                selection.substr(0, selection.size() / 3),
                            true);
}

// Rows 256 wide, so a Q4_K_M mix holds Q4_K and Q6_K matrices.
class DraftedGeneration : public ::testing::TestWithParam<std::tuple<Architecture, const char*>> {
protected:
    static std::shared_ptr<const Model> build() {
        TestModelRecipe recipe = tinySpec(std::get<0>(GetParam()));
        recipe.hiddenSize = 256;
        recipe.feedForwardSize = 512;
        recipe.weights = *TestWeightScheme::parse(std::get<1>(GetParam()));
        return makeTinyModel(recipe);
    }

    std::shared_ptr<const Model> model = build();
    std::shared_ptr<const Tokenizer> tokenizer = Tokenizer::fromGguf(model->file());
    ThreadPool pool{2};
};

TEST_P(DraftedGeneration, SeededPromptsGiveTheGreedyAnswerWithFewerSteps) {
    std::mt19937 rng(static_cast<std::uint32_t>(std::get<0>(GetParam())) * 7 + 1);
    Totals totals;
    for (int i = 0; i < 6; ++i) {
        const GenerationOptions options{.maxNewTokens = 24 + static_cast<std::int64_t>(rng() % 24)};
        expectSameAnswer(model, tokenizer, pool, rewritePrompt(*tokenizer, rng), options, totals);
    }
    // A tied random model mostly repeats its input, so guesses from the prompt are taken.
    EXPECT_GT(totals.accepted, 0);
    EXPECT_GT(totals.passes, 0);
}

TEST_P(DraftedGeneration, TheJsonConstraintSeesTheSameTokens) {
    std::mt19937 rng(99);
    Totals totals;
    for (int i = 0; i < 3; ++i) {
        // The prompt shows the object once, so guesses propose its keys and forbidden tokens alike.
        std::vector<std::int32_t> prompt = tokenizer->encode(
            "{\"prompt\": \"" + randomText(rng, 12) + "\"}\n" + randomText(rng, 10) + "\n{\"prompt\": \"",
            true);
        expectSameAnswer(model, tokenizer, pool, prompt, {.maxNewTokens = 40}, totals, {"prompt"});
    }
    EXPECT_GT(totals.proposed, 0);
}

INSTANTIATE_TEST_SUITE_P(ArchitecturesAndWeights, DraftedGeneration,
                         ::testing::Combine(::testing::Values(Architecture::llama, Architecture::qwen2,
                                                              Architecture::phi3, Architecture::gemma3),
                                            ::testing::Values("q4_k_m", "q8_0")));

class DraftEdges : public ::testing::Test {
protected:
    ThreadPool pool{2};
};

// Guesses the rest of a known answer, past its end.
class KnownAnswer : public DraftSource {
public:
    KnownAnswer(std::size_t promptLength, std::vector<std::int32_t> answer)
        : promptLength_(promptLength), answer_(std::move(answer)) {}

    std::vector<std::int32_t> propose(std::span<const std::int32_t> context,
                                      std::int64_t maxTokens) override {
        const std::size_t done = std::min(context.size() - promptLength_, answer_.size());
        const std::size_t end = std::min(answer_.size(), done + static_cast<std::size_t>(maxTokens));
        return {answer_.begin() + static_cast<std::ptrdiff_t>(done),
                answer_.begin() + static_cast<std::ptrdiff_t>(end)};
    }

private:
    std::size_t promptLength_;
    std::vector<std::int32_t> answer_;
};

TEST_F(DraftEdges, AnEndTokenInsideAGuessEndsTheAnswerWhereGreedyEndsIt) {
    // Untied, so the answer does not just repeat the prompt and holds tokens not seen before.
    TestModelRecipe recipe = tinySpec(Architecture::llama, GgmlType::Q8_0);
    recipe.tiedOutput = false;
    const auto plainModel = makeTinyModel(recipe);
    const std::shared_ptr<const Tokenizer> tokenizer = Tokenizer::fromGguf(plainModel->file());
    const std::vector<std::int32_t> prompt = tokenizer->encode("one two three four one two", true);
    GenerationOptions options{.maxNewTokens = 30, .ignoreEndOfGeneration = true};
    const auto greedy = GenerationSession(plainModel, tokenizer, pool).generate(prompt, options, {}).tokens;
    // The first greedy token after the second not produced before becomes the end token.
    const std::size_t stopAt = testing::firstUnseen(greedy, 2);
    ASSERT_LT(stopAt, greedy.size());
    const auto model = makeTinyModel(recipe, greedy[stopAt]);
    const std::shared_ptr<const Tokenizer> endTokenizer = Tokenizer::fromGguf(model->file());
    options.ignoreEndOfGeneration = false;
    KnownAnswer guesses(prompt.size(), greedy); // right up to the end token and past it
    Totals totals;
    expectSameAnswer(model, endTokenizer, pool, prompt, options, totals, {}, &guesses);
    EXPECT_EQ(totals.tokens, static_cast<std::int64_t>(stopAt));
    EXPECT_GT(totals.accepted, 0);
    EXPECT_GT(totals.proposed, totals.accepted); // the guesses after the end token were dropped
}

TEST_F(DraftEdges, GuessesNeverRunPastTheTokenBudgetOrTheContext) {
    TestModelRecipe recipe = tinySpec(Architecture::qwen2, GgmlType::Q8_0);
    const auto model = makeTinyModel(recipe);
    const std::shared_ptr<const Tokenizer> tokenizer = Tokenizer::fromGguf(model->file());
    const std::vector<std::int32_t> prompt =
        tokenizer->encode("red green blue red green blue red green", true);
    Totals totals;
    for (const std::int64_t budget : {1, 2, 3, 5, 9}) {
        expectSameAnswer(model, tokenizer, pool, prompt,
                         {.maxNewTokens = budget, .ignoreEndOfGeneration = true}, totals);
    }
    // A cache a few tokens longer than the prompt: the guesses meet its end.
    for (const std::int64_t spare : {1, 2, 3, 6}) {
        recipe.contextLength = static_cast<std::int64_t>(prompt.size()) + spare;
        expectSameAnswer(makeTinyModel(recipe), tokenizer, pool, prompt,
                         {.maxNewTokens = 40, .ignoreEndOfGeneration = true}, totals);
    }
    EXPECT_GT(totals.accepted, 0);
}

// The shared fixtures: files quantised elsewhere, and the real-weight model that repeats itself.
std::filesystem::path fixtures() {
    return PARLUNE_LLM_FIXTURES;
}

TEST(DraftedGenerationFixtures, EveryArchitecturesFixtureGivesTheGreedyAnswer) {
    if (!std::filesystem::exists(fixtures() / "models")) {
        GTEST_SKIP() << "shared engine fixtures not found at " << fixtures() << " (a plain clone has none)";
    }
    ThreadPool pool(2);
    for (const char* name : {"llama-tiny-Q8_0", "qwen2-tiny-Q4_K_M", "phi3-tiny-Q8_0", "gemma3-tiny-Q8_0",
                             "llama-w256-Q4_K_M", "llama-w256-Q6_K", "qwen2-tiny-untied-Q8_0"}) {
        SCOPED_TRACE(name);
        const auto file = GgufFile::open(fixtures() / "models" / (std::string(name) + ".gguf"));
        const auto model = Model::fromFile(file);
        const std::shared_ptr<const Tokenizer> tokenizer = Tokenizer::fromGguf(*file);
        std::mt19937 rng(5);
        Totals totals;
        for (int i = 0; i < 3; ++i) {
            expectSameAnswer(model, tokenizer, pool, rewritePrompt(*tokenizer, rng), {.maxNewTokens = 32},
                             totals);
        }
    }
}

TEST(DraftedGenerationFixtures, TheRealWeightModelSavesAFifthOfItsSteps) {
    const auto path = fixtures() / "real" / "stories260K.gguf";
    if (!std::filesystem::exists(path)) {
        GTEST_SKIP() << "real-weight fixture not found at " << path << " (a plain clone has none)";
    }
    const auto file = GgufFile::open(path);
    const auto model = Model::fromFile(file);
    const std::shared_ptr<const Tokenizer> tokenizer = Tokenizer::fromGguf(*file);
    ThreadPool pool(2);
    Totals totals;
    for (const char* start : {"Once", "Once upon a time", "Lily and Ben went to the park"}) {
        expectSameAnswer(model, tokenizer, pool, tokenizer->encode(start, true), {.maxNewTokens = 256},
                         totals);
    }
    ASSERT_GT(totals.proposed, 0);
    const double rate = static_cast<double>(totals.accepted) / static_cast<double>(totals.proposed);
    std::printf("[ DRAFTS   ] stories260K: %lld tokens, %lld guessed, %lld taken (%.0f%%), %lld of %lld "
                "steps saved\n",
                static_cast<long long>(totals.tokens), static_cast<long long>(totals.proposed),
                static_cast<long long>(totals.accepted), 100.0 * rate, static_cast<long long>(totals.passes),
                static_cast<long long>(totals.tokens));
    EXPECT_GT(totals.passes, totals.tokens / 5);
}

} // namespace
} // namespace parlune::llm
