#pragma once

#include "llm/tokenizer/ChatFormatError.h"
#include "llm/tokenizer/TextRange.h"

#include <string>
#include <string_view>
#include <vector>

namespace parlune::llm {

enum class ChatFamily { chatml, llama3, gemma, phi3 };

// A formatted prompt and where the caller's own texts lie in it: special-token spellings
// inside those ranges must stay plain text (see Tokenizer::encode with literal ranges), so a
// user's text cannot end a turn or open a new one.
struct ChatPrompt {
    std::string text;
    std::vector<TextRange> content; // sorted, disjoint
};

// Formats one system + user exchange the way a model's chat template renders it with a
// generation prompt. The family is recognised from markers in the template text; the template
// itself is never interpreted. An empty system text means no system message (the template's
// own default, if any, applies). Tokenise a prompt with Tokenizer::encode(text, content) from
// buildPrompt, so turn markers are tokens and the caller's texts stay text.
class ChatFormat {
public:
    // Throws ChatFormatError("unsupported chat format") when no known family matches.
    static ChatFormat fromTemplate(std::string_view jinjaTemplate);

    ChatFamily family() const;
    // Whether prompts begin with the beginning-of-sequence token's text (the template renders
    // it), so the caller must not add BOS again.
    bool includesBos() const;

    // System turn, user turn and the start of the assistant turn; thinking templates get an
    // empty thinking block (thinking off).
    std::string formatPrompt(std::string_view system, std::string_view user) const;
    // The longest prefix of formatPrompt(system, u) shared by every u that ends right after a
    // special token, so its tokens are a prefix of the whole prompt's tokens.
    std::string formatSystemPrefix(std::string_view system) const;

    // The same texts with the ranges of the system and user texts in them.
    ChatPrompt buildPrompt(std::string_view system, std::string_view user) const;
    ChatPrompt buildSystemPrefix(std::string_view system) const;

private:
    enum class Variant { chatml, qwen25, qwen3, smollm3, llama3, llama3Dated, gemma, phi3 };
    struct Parts {
        ChatPrompt prefix;
        ChatPrompt rest;
    };

    ChatFormat(Variant variant, bool bos) : variant_(variant), bos_(bos) {}
    Parts render(std::string_view system, std::string_view user) const;

    Variant variant_;
    bool bos_;
};

} // namespace parlune::llm
