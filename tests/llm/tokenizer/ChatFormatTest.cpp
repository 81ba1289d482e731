#include "TinyVocabularies.h"

#include "llm/tokenizer/ChatFormat.h"
#include "llm/tokenizer/Tokenizer.h"

#include <gtest/gtest.h>

namespace parlune::llm {
namespace {

// Just enough of each family's template text to carry its markers.
constexpr std::string_view kChatml =
    "{{'<|im_start|>' + message['role'] + '\\n' + message['content'] + '<|im_end|>'}}";
constexpr std::string_view kQwen25 =
    "<|im_start|>system\\nYou are Qwen, created by Alibaba Cloud. You are a helpful "
    "assistant.<|im_end|>";
constexpr std::string_view kQwen3 =
    "<|im_start|>{%- if enable_thinking is defined and enable_thinking is false %}"
    "{{- '<think>\\n\\n</think>\\n\\n' }}";
constexpr std::string_view kSmol3 =
    "<|im_start|>system\\n Reasoning Mode: {%- set reasoning_mode = \"/no_think\" -%}";
constexpr std::string_view kLlama3 = "{{- bos_token }}<|start_header_id|>Cutting Knowledge Date<|eot_id|>";
constexpr std::string_view kLlama30 =
    "{{ bos_token + '<|start_header_id|>' + role + '<|end_header_id|>' }}<|eot_id|>";
constexpr std::string_view kGemma = "{{ bos_token }}<start_of_turn>user\\n<end_of_turn>";
constexpr std::string_view kPhi3 = "{{'<|system|>\\n'}}<|user|><|end|><|assistant|>";

const std::vector<std::string> kSpecials = {"<|im_start|>",
                                            "<|im_end|>",
                                            "<|begin_of_text|>",
                                            "<|start_header_id|>",
                                            "<|end_header_id|>",
                                            "<|eot_id|>",
                                            "<bos>",
                                            "<start_of_turn>",
                                            "<end_of_turn>",
                                            "<s>",
                                            "<|system|>",
                                            "<|user|>",
                                            "<|assistant|>",
                                            "<|end|>",
                                            "<think>",
                                            "</think>"};

TEST(ChatFormatTest, RecognisesFamiliesByTheirMarkers) {
    EXPECT_EQ(ChatFormat::fromTemplate(kChatml).family(), ChatFamily::chatml);
    EXPECT_EQ(ChatFormat::fromTemplate(kQwen3).family(), ChatFamily::chatml);
    EXPECT_EQ(ChatFormat::fromTemplate(kLlama30).family(), ChatFamily::llama3);
    EXPECT_EQ(ChatFormat::fromTemplate(kGemma).family(), ChatFamily::gemma);
    EXPECT_EQ(ChatFormat::fromTemplate(kPhi3).family(), ChatFamily::phi3);
    EXPECT_TRUE(ChatFormat::fromTemplate(kLlama3).includesBos());
    EXPECT_FALSE(ChatFormat::fromTemplate(kChatml).includesBos());
    for (const std::string_view unsupported : {std::string_view{}, std::string_view{"[INST] {{ m }} [/INST]"},
                                               std::string_view{"<|user|> only"}}) {
        try {
            ChatFormat::fromTemplate(unsupported);
            ADD_FAILURE() << "accepted " << unsupported;
        } catch (const ChatFormatError& error) {
            EXPECT_STREQ(error.what(), "unsupported chat format");
        }
    }
}

TEST(ChatFormatTest, ChatmlVariantsDifferInDefaultSystemAndThinkingBlock) {
    EXPECT_EQ(ChatFormat::fromTemplate(kChatml).formatPrompt("S", "U"),
              "<|im_start|>system\nS<|im_end|>\n<|im_start|>user\nU<|im_end|>\n<|im_start|>assistant\n");
    EXPECT_EQ(ChatFormat::fromTemplate(kChatml).formatPrompt("", "U"),
              "<|im_start|>user\nU<|im_end|>\n<|im_start|>assistant\n");
    EXPECT_EQ(
        ChatFormat::fromTemplate(kQwen25).formatPrompt("", "U"),
        "<|im_start|>system\nYou are Qwen, created by Alibaba Cloud. You are a helpful assistant.<|im_end|>\n"
        "<|im_start|>user\nU<|im_end|>\n<|im_start|>assistant\n");
    EXPECT_EQ(ChatFormat::fromTemplate(kQwen3).formatPrompt("S", "U"),
              "<|im_start|>system\nS<|im_end|>\n<|im_start|>user\nU<|im_end|>\n<|im_start|>assistant\n"
              "<think>\n\n</think>\n\n");
}

TEST(ChatFormatTest, SmolLm3FollowsItsReasoningModeMarkers) {
    const ChatFormat format = ChatFormat::fromTemplate(kSmol3);
    const std::string header =
        "<|im_start|>system\n## Metadata\n\nKnowledge Cutoff Date: June 2025\nReasoning Mode: ";
    EXPECT_EQ(format.formatPrompt("Be brief. /no_think  ", "U"),
              header + "/no_think\n\n## Custom Instructions\n\nBe brief.\n\n<|im_end|>\n"
                       "<|im_start|>user\nU<|im_end|>\n<|im_start|>assistant\n<think>\n\n</think>\n");
    // Asking for thinking in the system text turns it on, and the empty block goes away.
    EXPECT_EQ(format.formatPrompt("Be brief. /think", "U"),
              header + "/think\n\n## Custom Instructions\n\nBe brief.\n\n<|im_end|>\n"
                       "<|im_start|>user\nU<|im_end|>\n<|im_start|>assistant\n");
    EXPECT_TRUE(format.formatPrompt("", "U").starts_with(
        header +
        "/no_think\n\n## Custom Instructions\n\nYou are a helpful AI assistant named SmolLM, trained by "
        "Hugging Face.\n\n<|im_end|>"));
}

TEST(ChatFormatTest, LlamaGemmaAndPhiTrimAndFoldAsTheirTemplatesDo) {
    EXPECT_EQ(ChatFormat::fromTemplate(kLlama30).formatPrompt(" S\n", "\tU "),
              "<|begin_of_text|><|start_header_id|>system<|end_header_id|>\n\nS<|eot_id|>"
              "<|start_header_id|>user<|end_header_id|>\n\nU<|eot_id|><|start_header_id|>assistant<|end_"
              "header_id|>\n\n");
    EXPECT_EQ(ChatFormat::fromTemplate(kGemma).formatPrompt("S", "U\n"),
              "<bos><start_of_turn>user\nS\n\nU<end_of_turn>\n<start_of_turn>model\n");
    EXPECT_EQ(ChatFormat::fromTemplate(kGemma).formatPrompt("", " U"),
              "<bos><start_of_turn>user\nU<end_of_turn>\n<start_of_turn>model\n");
    EXPECT_EQ(ChatFormat::fromTemplate(kPhi3).formatPrompt("S", "U"),
              "<|system|>\nS<|end|>\n<|user|>\nU<|end|>\n<|assistant|>\n");
}

// Merges chosen to join text across every boundary a careless prefix could cut.
std::vector<std::unique_ptr<Tokenizer>> boundaryTokenizers() {
    std::vector<std::unique_ptr<Tokenizer>> tokenizers;
    const std::vector<std::pair<std::string, std::string>> merges{{"\n", "\n"},  {"\n", "U"}, {"S", "\n"},
                                                                  {"u", "s"},    {"us", "e"}, {"use", "r"},
                                                                  {"\n\n", "U"}, {"r", "\n"}};
    tokenizers.push_back(Tokenizer::fromConfig(test::byteLevelConfig(merges, kSpecials, "llama-bpe")));
    tokenizers.push_back(Tokenizer::fromConfig(test::sentencePieceConfig(
        {{"▁", -1}, {"\n", -1}, {"U", -1}, {"S", -1}, {"\n\n", -2}, {"\nU", -1}, {"S\n", -1}, {"\n\nU", -3}},
        kSpecials)));
    return tokenizers;
}

TEST(ChatFormatTest, ContentRangesCoverExactlyTheCallersTexts) {
    for (const std::string_view jinja : {kChatml, kQwen25, kQwen3, kSmol3, kLlama3, kLlama30, kPhi3}) {
        const ChatPrompt prompt =
            ChatFormat::fromTemplate(jinja).buildPrompt("Sys <|im_end|>", "User <|eot_id|>");
        EXPECT_EQ(prompt.text,
                  ChatFormat::fromTemplate(jinja).formatPrompt("Sys <|im_end|>", "User <|eot_id|>"));
        ASSERT_EQ(prompt.content.size(), 2u) << jinja;
        const auto at = [&](const TextRange& r) { return prompt.text.substr(r.begin, r.end - r.begin); };
        EXPECT_EQ(at(prompt.content[0]), "Sys <|im_end|>");
        EXPECT_EQ(at(prompt.content[1]), "User <|eot_id|>");
    }
    const ChatPrompt gemma = ChatFormat::fromTemplate(kGemma).buildPrompt("S", " U ");
    ASSERT_EQ(gemma.content.size(), 1u);
    EXPECT_EQ(gemma.text.substr(gemma.content[0].begin, gemma.content[0].end - gemma.content[0].begin),
              "S\n\n U");
    EXPECT_TRUE(ChatFormat::fromTemplate(kQwen25).buildPrompt("", "").content.empty());
}

TEST(ChatFormatTest, SystemPrefixTokensArePrefixOfEveryPromptsTokens) {
    const auto tokenizers = boundaryTokenizers();
    for (const std::string_view jinja :
         {kChatml, kQwen25, kQwen3, kSmol3, kLlama3, kLlama30, kGemma, kPhi3}) {
        const ChatFormat format = ChatFormat::fromTemplate(jinja);
        for (const std::string_view system : {"S", "", " S\n", "S /think"}) {
            const std::string prefix = format.formatSystemPrefix(system);
            bool endsWithSpecial = false;
            for (const auto& special : kSpecials)
                endsWithSpecial = endsWithSpecial || prefix.ends_with(special);
            EXPECT_TRUE(endsWithSpecial) << prefix;
            for (const std::string_view user : {"U", "", "\nU", " user\n\nU "}) {
                const std::string prompt = format.formatPrompt(system, user);
                ASSERT_TRUE(prompt.starts_with(prefix)) << prompt;
                const ChatPrompt headParts = format.buildSystemPrefix(system);
                const ChatPrompt wholeParts = format.buildPrompt(system, user);
                for (const auto& tokenizer : tokenizers) {
                    const auto head = tokenizer->encode(prefix, true);
                    const auto whole = tokenizer->encode(prompt, true);
                    ASSERT_LE(head.size(), whole.size());
                    EXPECT_TRUE(std::equal(head.begin(), head.end(), whole.begin()))
                        << jinja << " / " << prompt;
                    EXPECT_EQ(tokenizer->encode(headParts.text, headParts.content), head);
                    EXPECT_EQ(tokenizer->encode(wholeParts.text, wholeParts.content), whole);
                }
            }
        }
    }
}

} // namespace
} // namespace parlune::llm
