#include "core/diagnostics/PrintableText.h"

namespace parlune {

namespace {

void appendEscaped(std::string& out, unsigned char byte) {
    constexpr char hex[] = "0123456789abcdef";
    out += "\\x";
    out += hex[byte >> 4];
    out += hex[byte & 0xf];
}

// Length of the well-formed UTF-8 sequence at `at` (shortest form, no surrogates), or 0.
std::size_t sequenceLength(std::string_view text, std::size_t at) {
    const auto lead = static_cast<unsigned char>(text[at]);
    std::size_t length = 0;
    char32_t code = 0;
    if (lead >= 0xc2 && lead <= 0xdf) {
        length = 2;
        code = lead & 0x1f;
    } else if (lead >= 0xe0 && lead <= 0xef) {
        length = 3;
        code = lead & 0x0f;
    } else if (lead >= 0xf0 && lead <= 0xf4) {
        length = 4;
        code = lead & 0x07;
    } else {
        return 0;
    }
    if (at + length > text.size()) {
        return 0;
    }
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[at + i]);
        if ((next & 0xc0) != 0x80) {
            return 0;
        }
        code = (code << 6) | (next & 0x3f);
    }
    const bool overlong = (length == 3 && code < 0x800) || (length == 4 && code < 0x10000);
    const bool invalid =
        code > 0x10ffff || (code >= 0xd800 && code <= 0xdfff) || (code >= 0x80 && code <= 0x9f);
    return overlong || invalid ? 0 : length;
}

} // namespace

std::string printableText(std::string_view text, std::size_t maxBytes) {
    const bool cut = text.size() > maxBytes;
    if (cut) {
        text = text.substr(0, maxBytes);
    }
    std::string out;
    out.reserve(text.size() + 3);
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if (byte >= 0x20 && byte < 0x7f) {
            out += static_cast<char>(byte);
            ++at;
            continue;
        }
        if (const std::size_t length = byte >= 0x80 ? sequenceLength(text, at) : 0; length > 0) {
            out.append(text.substr(at, length));
            at += length;
            continue;
        }
        appendEscaped(out, byte);
        ++at;
    }
    if (cut) {
        out += "...";
    }
    return out;
}

} // namespace parlune
