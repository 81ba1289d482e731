#include "llm/constrained/JsonObjectConstraint.h"
#include "llm/constrained/TokenByteTable.h"
#include "llm/gguf/GgufFile.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/testing/TestModelMaker.h"
#include "llm/tokenizer/Tokenizer.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace parlune::llm {
namespace {

const std::vector<std::string> twoProperties{"rewrittenPrompt", "note"};

bool accepts(const JsonObjectGrammar& grammar, const std::string& text) {
    JsonObjectGrammar::State state = grammar.initial();
    return grammar.advance(state, text) && grammar.isComplete(state);
}

bool isPrefix(const JsonObjectGrammar& grammar, const std::string& text) {
    JsonObjectGrammar::State state = grammar.initial();
    return grammar.advance(state, text);
}

// The object parses with exactly the declared string members, in order.
::testing::AssertionResult parsesAsDeclared(const std::string& json, const std::vector<std::string>& names) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(QByteArray::fromStdString(json), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        return ::testing::AssertionFailure() << "does not parse: " << json;
    }
    const QJsonObject object = document.object();
    if (object.size() != static_cast<qsizetype>(names.size())) {
        return ::testing::AssertionFailure() << "wrong member count: " << json;
    }
    for (const std::string& name : names) {
        if (!object.value(QString::fromStdString(name)).isString()) {
            return ::testing::AssertionFailure() << "no string " << name << ": " << json;
        }
    }
    std::size_t from = 0;
    for (const std::string& name : names) { // declared order
        const std::size_t at = json.find("\"" + name + "\"", from);
        if (at == std::string::npos) {
            return ::testing::AssertionFailure() << "members out of order: " << json;
        }
        from = at + name.size();
    }
    return ::testing::AssertionSuccess();
}

TEST(JsonObjectGrammarTest, AcceptsDeclaredObjectsWithEscapesAndUnicode) {
    const JsonObjectGrammar grammar(twoProperties);
    EXPECT_TRUE(accepts(grammar, R"({"rewrittenPrompt":"a","note":""})"));
    EXPECT_TRUE(accepts(
        grammar, "{\n  \"rewrittenPrompt\": \"Task: x\\n\\\"q\\\" \\u00e9 \\\\\",\n  \"note\": \"ok\"\n}"));
    EXPECT_TRUE(accepts(grammar,
                        "{\"rewrittenPrompt\":\"caf\xC3\xA9 \xE2\x80\x94 \xF0\x9F\x98\x80\",\"note\":\"\"}"));
}

TEST(JsonObjectGrammarTest, RefusesEverythingElse) {
    const JsonObjectGrammar grammar(twoProperties);
    EXPECT_FALSE(isPrefix(grammar, R"({"note":)"));                            // wrong order
    EXPECT_FALSE(isPrefix(grammar, R"({"rewrittenPromptX)"));                  // another key
    EXPECT_FALSE(isPrefix(grammar, R"({"rewrittenPrompt":1)"));                // not a string
    EXPECT_FALSE(isPrefix(grammar, R"({"rewrittenPrompt":"a"})"));             // member missing
    EXPECT_FALSE(isPrefix(grammar, R"({"rewrittenPrompt":"a","note":"b",)"));  // extra member
    EXPECT_FALSE(isPrefix(grammar, R"({"rewrittenPrompt":"a","note":"b"} )")); // trailing text
    EXPECT_FALSE(isPrefix(grammar, " {"));                                     // leading space
    EXPECT_FALSE(isPrefix(grammar, "{     \""));                               // whitespace run too long
    EXPECT_FALSE(isPrefix(grammar, "{\t\""));                                  // tabs are not allowed
    EXPECT_FALSE(isPrefix(grammar, "{\"rewrittenPrompt\":\"a\nb"));            // raw control character
    EXPECT_FALSE(isPrefix(grammar, R"({"rewrittenPrompt":"\x)"));              // unknown escape
    EXPECT_FALSE(isPrefix(grammar, R"({"rewrittenPrompt":"\u12g)"));           // bad hex digit
    EXPECT_FALSE(isPrefix(grammar, R"({"rewrittenPrompt":"\ud83d)"));          // lone surrogate half
    EXPECT_FALSE(isPrefix(grammar, "{\"rewrittenPrompt\":\"\xC0\xAF"));        // overlong
    EXPECT_FALSE(isPrefix(grammar, "{\"rewrittenPrompt\":\"\xED\xA0\x80"));    // encoded surrogate
    EXPECT_FALSE(isPrefix(grammar, "{\"rewrittenPrompt\":\"\xF4\x90"));        // above U+10FFFF
    EXPECT_FALSE(isPrefix(grammar, "{\"rewrittenPrompt\":\"\xC3\""));          // truncated character
    EXPECT_THROW(JsonObjectGrammar({}), std::invalid_argument);
    EXPECT_THROW(JsonObjectGrammar({"a\"b"}), std::invalid_argument);
}

TEST(JsonObjectGrammarTest, CompletionFromEveryPrefixIsShortestAndValid) {
    const JsonObjectGrammar grammar(twoProperties);
    const std::string full = "{ \"rewrittenPrompt\" : \"x\\u00e9\\n\xE2\x82\xAC\" ,\"note\":\"y\" }";
    ASSERT_TRUE(accepts(grammar, full));
    JsonObjectGrammar::State state = grammar.initial();
    for (std::size_t i = 0; i <= full.size(); ++i) {
        const std::string completion = grammar.completion(state);
        EXPECT_EQ(completion.size(), grammar.completionLength(state)) << "after " << i << " bytes";
        EXPECT_TRUE(parsesAsDeclared(full.substr(0, i) + completion, twoProperties))
            << "after " << i << " bytes";
        if (i < full.size()) {
            ASSERT_TRUE(grammar.advance(state, static_cast<unsigned char>(full[i])));
        }
    }
    EXPECT_EQ(grammar.completionLength(state), 0u);
}

// A vocabulary to walk over: a real one from the shared fixtures when present, else the small
// built-in byte-level one of the test-model maker.
std::unique_ptr<Tokenizer> loadVocabulary(const std::string& fixture) {
    const std::filesystem::path path = std::filesystem::path(PARLUNE_LLM_FIXTURES) / fixture;
    if (!fixture.empty() && std::filesystem::exists(path)) {
        return Tokenizer::fromGguf(*GgufFile::open(path));
    }
    TestModelRecipe recipe = *TestModelRecipe::shape("tiny", Architecture::llama);
    return Tokenizer::fromGguf(
        *GgufFile::fromBuffer(TestModelMaker::build(recipe).toBytes(), "tiny vocabulary"));
}

class JsonObjectConstraintWalk : public ::testing::TestWithParam<std::string> {};

TEST_P(JsonObjectConstraintWalk, RandomAllowedTokensAlwaysKeepAValidPrefix) {
    const auto tokenizer = loadVocabulary(GetParam());
    const auto table = std::make_shared<const TokenByteTable>(*tokenizer);
    std::mt19937 random(7);
    const int walks = table->size() > 10000 ? 5 : 12; // large vocabularies cost more per step
    for (int walk = 0; walk < walks; ++walk) {
        JsonObjectConstraint constraint(table, twoProperties);
        for (int step = 0; step < 40 && !constraint.isComplete(); ++step) {
            const std::vector<std::int32_t> allowed = constraint.allowedTokens();
            ASSERT_FALSE(allowed.empty());
            for (const std::int32_t token : allowed) {
                ASSERT_FALSE(table->isEndOfGeneration(token)) << "end allowed before the object is complete";
            }
            // Structural tokens are rare among the allowed ones; favour them half the time so walks finish.
            std::int32_t token =
                allowed[std::uniform_int_distribution<std::size_t>(0, allowed.size() - 1)(random)];
            if (random() % 2 == 0) {
                for (const std::int32_t candidate : allowed) {
                    const std::string& bytes = table->bytes(candidate);
                    if (bytes.find_first_of("\"}:,") != std::string::npos && random() % 3 == 0) {
                        token = candidate;
                        break;
                    }
                }
            }
            ASSERT_TRUE(constraint.allows(token));
            constraint.accept(token);
        }
        // Wherever the walk stopped, the shortest completion closes it into a declared object.
        JsonObjectGrammar::State state = constraint.grammar().initial();
        ASSERT_TRUE(constraint.grammar().advance(state, constraint.text()));
        EXPECT_TRUE(
            parsesAsDeclared(constraint.text() + constraint.grammar().completion(state), twoProperties));
        if (constraint.isComplete()) {
            EXPECT_EQ(constraint.allowedTokens(), table->endOfGeneration());
        }
    }
}

TEST_P(JsonObjectConstraintWalk, BestTokenUnderRandomLogitsFinishesWithinTheBudget) {
    const auto tokenizer = loadVocabulary(GetParam());
    const auto table = std::make_shared<const TokenByteTable>(*tokenizer);
    std::mt19937 random(11);
    std::normal_distribution<float> logit(0.0f, 1.0f);
    std::vector<float> logits(static_cast<std::size_t>(table->size()));
    for (const std::int64_t budget : {40, 60, 100}) {
        JsonObjectConstraint constraint(table, twoProperties);
        std::int64_t used = 0;
        for (; used < budget && !constraint.isComplete(); ++used) {
            for (float& value : logits) {
                value = logit(random);
            }
            const std::int32_t token = constraint.bestToken(logits, budget - used);
            ASSERT_GE(token, 0);
            ASSERT_TRUE(constraint.allows(token));
            // No allowed token that fits may beat the chosen one.
            constraint.accept(token);
        }
        EXPECT_TRUE(constraint.isComplete()) << "budget " << budget << ": " << constraint.text();
        EXPECT_TRUE(parsesAsDeclared(constraint.text(), twoProperties));
        EXPECT_LE(used, budget);
    }
}

INSTANTIATE_TEST_SUITE_P(Vocabularies, JsonObjectConstraintWalk,
                         ::testing::Values(std::string(), std::string("vocab/ggml-vocab-gpt-2.gguf"),
                                           std::string("models/qwen2-tiny-Q8_0.gguf")),
                         [](const ::testing::TestParamInfo<std::string>& param) {
                             return param.param.empty()                             ? std::string("builtin")
                                    : param.param.find("qwen") != std::string::npos ? std::string("qwen2")
                                                                                    : std::string("gpt2");
                         });

TEST(JsonObjectConstraintTest, BestTokenPrefersTheLargestAllowedLogit) {
    const auto tokenizer = loadVocabulary({});
    const auto table = std::make_shared<const TokenByteTable>(*tokenizer);
    JsonObjectConstraint constraint(table, {"a"});
    std::vector<float> logits(static_cast<std::size_t>(table->size()), 0.0f);
    const std::int32_t brace = table->singleByteToken('{');
    const std::int32_t letter = table->singleByteToken('x');
    ASSERT_GE(brace, 0);
    logits[static_cast<std::size_t>(letter)] = 9.0f; // favourite, but not allowed first
    logits[static_cast<std::size_t>(brace)] = 1.0f;
    EXPECT_EQ(constraint.bestToken(logits, 10), brace);
    // With too few tokens left to close the object, nothing qualifies.
    EXPECT_EQ(constraint.bestToken(logits, 5), -1);
    EXPECT_THROW(constraint.accept(letter), std::logic_error);
}

} // namespace
} // namespace parlune::llm
