#include "llm/tokenizer/ChatFormat.h"

#include "llm/tokenizer/CharClass.h"
#include "llm/tokenizer/Utf8.h"

namespace parlune::llm {

namespace {

bool contains(std::string_view text, std::string_view marker) {
    return text.find(marker) != std::string_view::npos;
}

// What Python's str.isspace() accepts, which is what the templates' trim and rstrip remove.
bool isTemplateSpace(std::string_view text, std::size_t offset, std::size_t& length) {
    const Utf8Char ch = decodeUtf8(text, offset);
    length = ch.length;
    return ch.valid && (charClass(ch.codePoint) == CharClass::whitespace ||
                        (ch.codePoint >= 0x1C && ch.codePoint <= 0x1F));
}

std::string_view rstrip(std::string_view text) {
    // Scan forward so multi-byte spaces are recognised; remember where the last non-space ended.
    std::size_t keep = 0;
    for (std::size_t offset = 0; offset < text.size();) {
        std::size_t length = 0;
        const bool space = isTemplateSpace(text, offset, length);
        offset += length;
        if (!space)
            keep = offset;
    }
    return text.substr(0, keep);
}

std::string_view strip(std::string_view text) {
    std::size_t begin = 0;
    while (begin < text.size()) {
        std::size_t length = 0;
        if (!isTemplateSpace(text, begin, length))
            break;
        begin += length;
    }
    return rstrip(text.substr(begin));
}

std::string replaceAll(std::string text, std::string_view from) {
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from, at))
        text.erase(at, from.size());
    return text;
}

constexpr std::string_view kQwenDefaultSystem =
    "You are Qwen, created by Alibaba Cloud. You are a helpful assistant.";

constexpr std::string_view kSmolDefaultSystem =
    "You are a helpful AI assistant named SmolLM, trained by Hugging Face.";

constexpr std::string_view kSmolThinkingSystem =
    "You are a helpful AI assistant named SmolLM, trained by Hugging Face. Your role as an assistant "
    "involves "
    "thoroughly exploring questions through a systematic thinking process before providing the final precise "
    "and "
    "accurate solutions. This requires engaging in a comprehensive cycle of analysis, summarizing, "
    "exploration, "
    "reassessment, reflection, backtracking, and iteration to develop well-considered thinking process. "
    "Please "
    "structure your response into two main sections: Thought and Solution using the specified format: "
    "<think> "
    "Thought section </think> Solution section. In the Thought section, detail your reasoning process in "
    "steps. "
    "Each step should include detailed considerations such as analysing questions, summarizing relevant "
    "findings, "
    "brainstorming new ideas, verifying the accuracy of the current steps, refining any errors, and "
    "revisiting "
    "previous steps. In the Solution section, based on various attempts, explorations, and reflections from "
    "the "
    "Thought section, systematically present the final solution that you deem correct. The Solution section "
    "should "
    "be logical, accurate, and concise and detail necessary steps needed to reach the conclusion.";

// The date the Llama 3.1+ templates print when the renderer offers no clock; a fixed date keeps
// prompts (and their cached prefixes) the same from day to day.
constexpr std::string_view kLlamaDefaultDate = "26 Jul 2024";

void markup(ChatPrompt& prompt, std::string_view text) {
    prompt.text.append(text);
}

void content(ChatPrompt& prompt, std::string_view text) {
    if (text.empty())
        return;
    prompt.content.push_back({prompt.text.size(), prompt.text.size() + text.size()});
    prompt.text.append(text);
}

} // namespace

ChatFormat ChatFormat::fromTemplate(std::string_view jinja) {
    const bool bos = contains(jinja, "bos_token");
    if (contains(jinja, "<|im_start|>")) {
        if (contains(jinja, "Reasoning Mode") && contains(jinja, "/no_think"))
            return ChatFormat(Variant::smollm3, false);
        if (contains(jinja, "enable_thinking") || contains(jinja, "</think>"))
            return ChatFormat(Variant::qwen3, false);
        if (contains(jinja, kQwenDefaultSystem))
            return ChatFormat(Variant::qwen25, false);
        return ChatFormat(Variant::chatml, false);
    }
    if (contains(jinja, "<|start_header_id|>") && contains(jinja, "<|eot_id|>"))
        return ChatFormat(contains(jinja, "Cutting Knowledge Date") ? Variant::llama3Dated : Variant::llama3,
                          bos);
    if (contains(jinja, "<start_of_turn>") && contains(jinja, "<end_of_turn>"))
        return ChatFormat(Variant::gemma, bos);
    if (contains(jinja, "<|user|>") && contains(jinja, "<|assistant|>") && contains(jinja, "<|end|>"))
        return ChatFormat(Variant::phi3, bos);
    throw ChatFormatError("unsupported chat format");
}

ChatFamily ChatFormat::family() const {
    switch (variant_) {
    case Variant::chatml:
    case Variant::qwen25:
    case Variant::qwen3:
    case Variant::smollm3:
        return ChatFamily::chatml;
    case Variant::llama3:
    case Variant::llama3Dated:
        return ChatFamily::llama3;
    case Variant::gemma:
        return ChatFamily::gemma;
    case Variant::phi3:
        return ChatFamily::phi3;
    }
    return ChatFamily::chatml;
}

bool ChatFormat::includesBos() const {
    return bos_;
}

std::string ChatFormat::formatPrompt(std::string_view system, std::string_view user) const {
    return buildPrompt(system, user).text;
}

std::string ChatFormat::formatSystemPrefix(std::string_view system) const {
    return render(system, {}).prefix.text;
}

ChatPrompt ChatFormat::buildSystemPrefix(std::string_view system) const {
    return render(system, {}).prefix;
}

ChatPrompt ChatFormat::buildPrompt(std::string_view system, std::string_view user) const {
    Parts parts = render(system, user);
    ChatPrompt prompt = std::move(parts.prefix);
    const std::size_t shift = prompt.text.size();
    prompt.text += parts.rest.text;
    for (const TextRange range : parts.rest.content)
        prompt.content.push_back({range.begin + shift, range.end + shift});
    return prompt;
}

ChatFormat::Parts ChatFormat::render(std::string_view system, std::string_view user) const {
    Parts p;
    ChatPrompt& head = p.prefix;
    ChatPrompt& rest = p.rest;
    const bool hasSystem = !system.empty();
    switch (variant_) {
    case Variant::chatml:
    case Variant::qwen25:
    case Variant::qwen3:
        if (hasSystem || variant_ == Variant::qwen25) {
            markup(head, "<|im_start|>system\n");
            if (hasSystem)
                content(head, system);
            else
                markup(head, kQwenDefaultSystem);
            markup(head, "<|im_end|>\n");
        }
        markup(head, "<|im_start|>");
        markup(rest, "user\n");
        content(rest, user);
        markup(rest, "<|im_end|>\n<|im_start|>assistant\n");
        if (variant_ == Variant::qwen3)
            markup(rest, "<think>\n\n</think>\n\n");
        break;
    case Variant::smollm3: {
        // Thinking is off unless the system text itself asks for it; the markers are removed.
        const bool thinking = !contains(system, "/no_think") && contains(system, "/think");
        const std::string custom(rstrip(replaceAll(replaceAll(std::string(system), "/no_think"), "/think")));
        markup(head, "<|im_start|>system\n## Metadata\n\nKnowledge Cutoff Date: June 2025\nReasoning Mode: ");
        markup(head, thinking ? "/think" : "/no_think");
        markup(head, "\n\n## Custom Instructions\n\n");
        if (!custom.empty())
            content(head, custom);
        else
            markup(head, thinking ? kSmolThinkingSystem : kSmolDefaultSystem);
        markup(head, "\n\n<|im_end|>\n<|im_start|>");
        markup(rest, "user\n");
        content(rest, user);
        markup(rest, "<|im_end|>\n<|im_start|>assistant\n");
        if (!thinking)
            markup(rest, "<think>\n\n</think>\n");
        break;
    }
    case Variant::llama3:
    case Variant::llama3Dated:
        if (bos_)
            markup(head, "<|begin_of_text|>");
        if (variant_ == Variant::llama3Dated || hasSystem) {
            markup(head, "<|start_header_id|>system<|end_header_id|>\n\n");
            if (variant_ == Variant::llama3Dated) {
                markup(head, "Cutting Knowledge Date: December 2023\nToday Date: ");
                markup(head, kLlamaDefaultDate);
                markup(head, "\n\n");
            }
            content(head, strip(system));
            markup(head, "<|eot_id|>");
        }
        markup(head, "<|start_header_id|>");
        markup(rest, "user<|end_header_id|>\n\n");
        content(rest, strip(user));
        markup(rest, "<|eot_id|><|start_header_id|>assistant<|end_header_id|>\n\n");
        break;
    case Variant::gemma: {
        // No system role: the system text leads the first user turn.
        if (bos_)
            markup(head, "<bos>");
        markup(head, "<start_of_turn>");
        std::string folded;
        if (hasSystem)
            folded.append(system).append("\n\n");
        folded.append(user);
        markup(rest, "user\n");
        content(rest, strip(folded));
        markup(rest, "<end_of_turn>\n<start_of_turn>model\n");
        break;
    }
    case Variant::phi3:
        if (bos_)
            markup(head, "<s>");
        if (hasSystem) {
            markup(head, "<|system|>\n");
            content(head, system);
            markup(head, "<|end|>\n");
        }
        markup(head, "<|user|>");
        markup(rest, "\n");
        content(rest, user);
        markup(rest, "<|end|>\n<|assistant|>\n");
        break;
    }
    return p;
}

} // namespace parlune::llm
