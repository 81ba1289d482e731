#include "llm/tokenizer/PreTokenizer.h"

#include "llm/tokenizer/CharClass.h"
#include "llm/tokenizer/Utf8.h"

#include <cstddef>
#include <cstdint>

namespace parlune::llm {

namespace {

struct Char {
    char32_t cp;
    std::uint32_t offset;
    CharClass cls;
};

// Decoded text with one sentinel entry whose offset is the text's length.
class CharSequence {
public:
    explicit CharSequence(std::string_view text) {
        chars_.reserve(text.size() + 1);
        for (std::size_t offset = 0; offset < text.size();) {
            const Utf8Char ch = decodeUtf8(text, offset);
            const CharClass cls = ch.valid ? charClass(ch.codePoint) : CharClass::other;
            chars_.push_back({ch.valid ? ch.codePoint : 0xFFFD, static_cast<std::uint32_t>(offset), cls});
            offset += ch.length;
        }
        chars_.push_back({0, static_cast<std::uint32_t>(text.size()), CharClass::other});
    }
    std::size_t size() const { return chars_.size() - 1; }
    char32_t cp(std::size_t i) const { return chars_[i].cp; }
    CharClass cls(std::size_t i) const { return chars_[i].cls; }
    std::uint32_t offset(std::size_t i) const { return chars_[i].offset; }

private:
    std::vector<Char> chars_;
};

class Splitter {
public:
    Splitter(std::string_view text, const CharSequence& chars, std::vector<std::string_view>& pieces)
        : text_(text), chars_(chars), pieces_(pieces) {}

    void gpt2(std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end;) {
            if (const std::size_t n = contraction(i, end, false)) {
                i = emit(i, i + n);
                continue;
            }
            const std::size_t j = (chars_.cp(i) == ' ' && i + 1 < end) ? i + 1 : i;
            const CharClass cls = chars_.cls(j);
            if (cls != CharClass::whitespace) {
                i = emit(i, runEnd(j, end, cls));
                continue;
            }
            i = emit(i, trailingSpaceEnd(i, end));
        }
    }

    void llama3(std::size_t begin, std::size_t end, std::size_t maxDigits) {
        for (std::size_t i = begin; i < end;) {
            if (const std::size_t n = contraction(i, end, true)) {
                i = emit(i, i + n);
                continue;
            }
            const char32_t cp = chars_.cp(i);
            const CharClass cls = chars_.cls(i);
            if (cls == CharClass::letter) {
                i = emit(i, runEnd(i, end, CharClass::letter));
                continue;
            }
            if (cls != CharClass::number && cp != '\r' && cp != '\n' && i + 1 < end &&
                chars_.cls(i + 1) == CharClass::letter) {
                i = emit(i, runEnd(i + 1, end, CharClass::letter));
                continue;
            }
            if (cls == CharClass::number) {
                std::size_t k = i + 1;
                while (k < end && k - i < maxDigits && chars_.cls(k) == CharClass::number)
                    ++k;
                i = emit(i, k);
                continue;
            }
            const std::size_t j = (cp == ' ' && i + 1 < end) ? i + 1 : i;
            if (chars_.cls(j) == CharClass::other) {
                std::size_t k = runEnd(j, end, CharClass::other);
                while (k < end && isLineBreak(chars_.cp(k)))
                    ++k;
                i = emit(i, k);
                continue;
            }
            // Whitespace: up to and including its last line break if it has one.
            const std::size_t k = runEnd(i, end, CharClass::whitespace);
            std::size_t lastBreak = k;
            for (std::size_t m = k; m > i; --m) {
                if (isLineBreak(chars_.cp(m - 1))) {
                    lastBreak = m - 1;
                    break;
                }
            }
            i = emit(i, lastBreak < k ? lastBreak + 1 : trailingSpaceEnd(i, end));
        }
    }

    void starcoder(std::size_t begin, std::size_t end) {
        std::size_t runStart = begin;
        for (std::size_t i = begin; i < end; ++i) {
            if (chars_.cls(i) != CharClass::number)
                continue;
            gpt2(runStart, i);
            emit(i, i + 1);
            runStart = i + 1;
        }
        gpt2(runStart, end);
    }

private:
    static bool isLineBreak(char32_t cp) { return cp == '\r' || cp == '\n'; }

    static char32_t lower(char32_t cp) { return (cp >= 'A' && cp <= 'Z') ? cp + ('a' - 'A') : cp; }

    // Length of 's 't 're 've 'm 'll 'd at i, 0 when none.
    std::size_t contraction(std::size_t i, std::size_t end, bool ignoreCase) const {
        if (chars_.cp(i) != '\'' || i + 1 >= end)
            return 0;
        auto at = [&](std::size_t k) { return ignoreCase ? lower(chars_.cp(k)) : chars_.cp(k); };
        const char32_t a = at(i + 1);
        if (a == 's' || a == 't' || a == 'm' || a == 'd')
            return 2;
        if (i + 2 >= end)
            return 0;
        const char32_t b = at(i + 2);
        if ((a == 'r' && b == 'e') || (a == 'v' && b == 'e') || (a == 'l' && b == 'l'))
            return 3;
        return 0;
    }

    std::size_t runEnd(std::size_t i, std::size_t end, CharClass cls) const {
        while (i < end && chars_.cls(i) == cls)
            ++i;
        return i;
    }

    // \s+(?!\S)|\s+ at a whitespace character: the run, less its last character when a
    // non-space follows and the run is longer than one (that character leads the next piece).
    std::size_t trailingSpaceEnd(std::size_t i, std::size_t end) const {
        const std::size_t k = runEnd(i, end, CharClass::whitespace);
        return (k == end || k - i == 1) ? k : k - 1;
    }

    std::size_t emit(std::size_t begin, std::size_t end) {
        const std::uint32_t from = chars_.offset(begin);
        pieces_.push_back(text_.substr(from, chars_.offset(end) - from));
        return end;
    }

    std::string_view text_;
    const CharSequence& chars_;
    std::vector<std::string_view>& pieces_;
};

} // namespace

PreTokenizerKind PreTokenizer::kindForName(std::string_view name) {
    if (name == "llama-bpe" || name == "llama3")
        return PreTokenizerKind::llama3;
    if (name == "qwen2")
        return PreTokenizerKind::qwen2;
    if (name == "starcoder" || name == "smollm")
        return PreTokenizerKind::starcoder;
    return PreTokenizerKind::gpt2;
}

void PreTokenizer::split(std::string_view text, std::vector<std::string_view>& pieces) const {
    if (text.empty())
        return;
    const CharSequence chars(text);
    Splitter splitter(text, chars, pieces);
    switch (kind_) {
    case PreTokenizerKind::gpt2:
        splitter.gpt2(0, chars.size());
        break;
    case PreTokenizerKind::llama3:
        splitter.llama3(0, chars.size(), 3);
        break;
    case PreTokenizerKind::qwen2:
        splitter.llama3(0, chars.size(), 1);
        break;
    case PreTokenizerKind::starcoder:
        splitter.starcoder(0, chars.size());
        break;
    }
}

} // namespace parlune::llm
