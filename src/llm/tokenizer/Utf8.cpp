#include "llm/tokenizer/Utf8.h"

namespace parlune::llm {

namespace {

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0u) == 0x80u;
}

} // namespace

std::size_t utf8SequenceLength(unsigned char leadByte) {
    if (leadByte >= 0xC2 && leadByte <= 0xDF)
        return 2;
    if ((leadByte & 0xF0u) == 0xE0u)
        return 3;
    if (leadByte >= 0xF0 && leadByte <= 0xF4)
        return 4;
    return 1;
}

Utf8Char decodeUtf8(std::string_view text, std::size_t offset) {
    const auto lead = static_cast<unsigned char>(text[offset]);
    if (lead < 0x80)
        return {lead, 1, true};
    const std::size_t length = utf8SequenceLength(lead);
    if (length == 1 || offset + length > text.size())
        return {0xFFFD, 1, false};
    char32_t cp = lead & (0xFFu >> (length + 1));
    for (std::size_t i = 1; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(text[offset + i]);
        if (!isContinuation(byte))
            return {0xFFFD, 1, false};
        cp = (cp << 6) | (byte & 0x3Fu);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not characters.
    const bool overlong = (length == 3 && cp < 0x800) || (length == 4 && cp < 0x10000);
    if (overlong || (cp >= 0xD800 && cp <= 0xDFFF) || cp > 0x10FFFF)
        return {0xFFFD, 1, false};
    return {cp, length, true};
}

void appendUtf8(std::string& out, char32_t cp) {
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

std::size_t incompleteUtf8Suffix(std::string_view text) {
    // A sequence is at most four bytes, so only the last three can start an unfinished one.
    const std::size_t size = text.size();
    for (std::size_t back = 1; back <= 3 && back <= size; ++back) {
        const auto lead = static_cast<unsigned char>(text[size - back]);
        if (isContinuation(lead))
            continue;
        if (utf8SequenceLength(lead) <= back)
            return 0;
        if (back == 1)
            return 1;
        // The second byte narrows what some lead bytes allow (no overlongs, surrogates or
        // values past U+10FFFF).
        const auto second = static_cast<unsigned char>(text[size - back + 1]);
        const bool allowed = (lead == 0xE0 && second >= 0xA0) || (lead == 0xED && second <= 0x9F) ||
                             (lead == 0xF0 && second >= 0x90) || (lead == 0xF4 && second <= 0x8F) ||
                             (lead != 0xE0 && lead != 0xED && lead != 0xF0 && lead != 0xF4);
        return allowed ? back : 0;
    }
    return 0;
}

std::string sanitizeUtf8(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t offset = 0; offset < text.size();) {
        const Utf8Char ch = decodeUtf8(text, offset);
        if (ch.valid)
            out.append(text.substr(offset, ch.length));
        else
            appendUtf8(out, 0xFFFD);
        offset += ch.length;
    }
    return out;
}

} // namespace parlune::llm
