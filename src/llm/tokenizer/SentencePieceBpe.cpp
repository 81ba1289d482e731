#include "llm/tokenizer/SentencePieceBpe.h"

#include "llm/tokenizer/TokenizerError.h"
#include "llm/tokenizer/Utf8.h"

#include <algorithm>
#include <cstdio>

namespace parlune::llm {

namespace {

constexpr std::string_view kSpaceMark = "\xE2\x96\x81"; // U+2581

} // namespace

SentencePieceBpe::SentencePieceBpe(const Vocabulary& vocabulary, bool addSpacePrefix,
                                   std::optional<std::int32_t> unknownToken)
    : vocabulary_(vocabulary), addSpacePrefix_(addSpacePrefix), unknownToken_(unknownToken) {
    for (int b = 0; b < 256; ++b) {
        char name[8];
        std::snprintf(name, sizeof name, "<0x%02X>", b);
        const auto id = vocabulary_.find(name);
        byteTokens_[static_cast<std::size_t>(b)] = id ? *id : -1;
    }
}

std::optional<std::int32_t> SentencePieceBpe::findPiece(std::string_view text) const {
    const auto id = vocabulary_.find(text);
    if (!id)
        return std::nullopt;
    // Plain text never turns into control, unknown or byte tokens by merging.
    switch (vocabulary_.type(*id)) {
    case TokenType::control:
    case TokenType::unknown:
    case TokenType::byte:
        return std::nullopt;
    default:
        return id;
    }
}

void SentencePieceBpe::emitBytes(std::string_view text, std::vector<std::int32_t>& out) const {
    for (const char c : text) {
        const std::int32_t id = byteTokens_[static_cast<unsigned char>(c)];
        if (id >= 0)
            out.push_back(id);
        else if (unknownToken_)
            out.push_back(*unknownToken_);
        else
            throw TokenizerError("the vocabulary can spell neither this character nor its bytes, and has no "
                                 "unknown token");
    }
}

void SentencePieceBpe::encodeFragment(std::string_view fragment, bool atSequenceStart,
                                      std::vector<std::int32_t>& out) const {
    std::string text;
    text.reserve(fragment.size() + 8);
    if (addSpacePrefix_ && atSequenceStart)
        text.append(kSpaceMark);
    for (const char c : fragment) {
        if (c == ' ')
            text.append(kSpaceMark);
        else
            text.push_back(c);
    }
    if (text.empty())
        return;

    struct Symbol {
        std::uint32_t offset;
        std::uint32_t length; // 0 once merged into its left neighbour
        std::int32_t prev;
        std::int32_t next;
    };
    std::vector<Symbol> symbols;
    symbols.reserve(text.size());
    for (std::size_t offset = 0; offset < text.size();) {
        const std::size_t length = decodeUtf8(text, offset).length;
        const auto index = static_cast<std::int32_t>(symbols.size());
        symbols.push_back(
            {static_cast<std::uint32_t>(offset), static_cast<std::uint32_t>(length), index - 1, index + 1});
        offset += length;
    }
    symbols.back().next = -1;

    struct Candidate {
        float score;
        std::int32_t left;
        std::uint32_t length;
    };
    // Highest score first; among equal scores the leftmost pair.
    const auto worse = [](const Candidate& a, const Candidate& b) {
        return a.score != b.score ? a.score < b.score : a.left > b.left;
    };
    std::vector<Candidate> heap;
    const auto consider = [&](std::int32_t left) {
        if (left < 0)
            return;
        const Symbol& l = symbols[static_cast<std::size_t>(left)];
        if (l.next < 0)
            return;
        const Symbol& r = symbols[static_cast<std::size_t>(l.next)];
        const std::uint32_t length = l.length + r.length;
        const auto id = findPiece(std::string_view(text).substr(l.offset, length));
        if (!id)
            return;
        heap.push_back({vocabulary_.score(*id), left, length});
        std::push_heap(heap.begin(), heap.end(), worse);
    };
    for (std::int32_t i = 0; i + 1 < static_cast<std::int32_t>(symbols.size()); ++i)
        consider(i);
    while (!heap.empty()) {
        std::pop_heap(heap.begin(), heap.end(), worse);
        const Candidate c = heap.back();
        heap.pop_back();
        Symbol& l = symbols[static_cast<std::size_t>(c.left)];
        if (l.length == 0 || l.next < 0)
            continue;
        Symbol& r = symbols[static_cast<std::size_t>(l.next)];
        if (l.length + r.length != c.length)
            continue; // one side changed since the pair was queued
        l.length = c.length;
        l.next = r.next;
        if (r.next >= 0)
            symbols[static_cast<std::size_t>(r.next)].prev = c.left;
        r.length = 0;
        consider(l.prev);
        consider(c.left);
    }
    for (std::int32_t i = 0; i >= 0; i = symbols[static_cast<std::size_t>(i)].next) {
        const Symbol& s = symbols[static_cast<std::size_t>(i)];
        const std::string_view piece = std::string_view(text).substr(s.offset, s.length);
        if (const auto id = findPiece(piece))
            out.push_back(*id);
        else
            emitBytes(piece, out);
    }
}

std::string SentencePieceBpe::tokenBytes(std::int32_t token) const {
    if (!vocabulary_.contains(token))
        return {};
    const std::string& text = vocabulary_.text(token);
    switch (vocabulary_.type(token)) {
    case TokenType::control:
        return {};
    case TokenType::unknown:
        return "\xEF\xBF\xBD";
    case TokenType::byte: {
        unsigned value = 0;
        if (text.size() == 6 && std::sscanf(text.c_str(), "<0x%2X>", &value) == 1)
            return std::string(1, static_cast<char>(value));
        return text;
    }
    default:
        break;
    }
    std::string out;
    out.reserve(text.size());
    for (std::size_t offset = 0; offset < text.size();) {
        if (text.compare(offset, kSpaceMark.size(), kSpaceMark) == 0) {
            out.push_back(' ');
            offset += kSpaceMark.size();
        } else {
            out.push_back(text[offset++]);
        }
    }
    return out;
}

} // namespace parlune::llm
