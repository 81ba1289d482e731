#include "llm/tokenizer/ByteLevelBpe.h"

#include "llm/tokenizer/TokenizerError.h"
#include "llm/tokenizer/Utf8.h"

#include <algorithm>

namespace parlune::llm {

namespace {

// Bytes that are printable and not whitespace keep their own code point; the other 68 take
// U+0100 onwards in byte order.
struct ByteTables {
    std::array<char32_t, 256> toChar{};
    std::array<std::int16_t, 512> toByte{};

    ByteTables() {
        toByte.fill(-1);
        char32_t next = 256;
        for (int b = 0; b < 256; ++b) {
            const bool printable = (b >= 0x21 && b <= 0x7E) || (b >= 0xA1 && b <= 0xAC) || (b >= 0xAE);
            toChar[static_cast<std::size_t>(b)] = printable ? static_cast<char32_t>(b) : next++;
            toByte[toChar[static_cast<std::size_t>(b)]] = static_cast<std::int16_t>(b);
        }
    }
};

const ByteTables& byteTables() {
    static const ByteTables tables;
    return tables;
}

constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

std::uint64_t pairKey(std::int32_t left, std::int32_t right) {
    return (static_cast<std::uint64_t>(static_cast<std::uint32_t>(left)) << 32) |
           static_cast<std::uint32_t>(right);
}

void spellBytes(std::string_view bytes, std::string& out) {
    out.clear();
    for (const char c : bytes)
        appendUtf8(out, ByteLevelBpe::byteToChar(static_cast<unsigned char>(c)));
}

} // namespace

char32_t ByteLevelBpe::byteToChar(unsigned char byte) {
    return byteTables().toChar[byte];
}

int ByteLevelBpe::charToByte(char32_t ch) {
    return ch < 512 ? byteTables().toByte[ch] : -1;
}

ByteLevelBpe::ByteLevelBpe(const Vocabulary& vocabulary, const std::vector<std::string>& merges,
                           PreTokenizerKind preTokenizer, bool wholeWordsFirst)
    : vocabulary_(vocabulary), preTokenizer_(preTokenizer), wholeWordsFirst_(wholeWordsFirst) {
    // Vocabularies trained on valid UTF-8 may lack bytes that never occur in it (C0, C1, F5-FF).
    for (int b = 0; b < 256; ++b) {
        std::string spelling;
        appendUtf8(spelling, byteToChar(static_cast<unsigned char>(b)));
        const auto id = vocabulary_.find(spelling);
        byteTokens_[static_cast<std::size_t>(b)] = id ? *id : -1;
    }
    for (const char c : std::string_view(kReplacement)) {
        if (byteTokens_[static_cast<unsigned char>(c)] < 0)
            throw TokenizerError("the byte-level vocabulary cannot spell U+FFFD");
    }
    merges_.reserve(merges.size());
    std::string joined;
    for (std::size_t rank = 0; rank < merges.size(); ++rank) {
        const std::string& merge = merges[rank];
        const std::size_t space = merge.find(' ', 1);
        if (space == std::string::npos)
            throw TokenizerError("merge " + std::to_string(rank) + " is not two tokens separated by a space");
        const std::string_view left = std::string_view(merge).substr(0, space);
        const std::string_view right = std::string_view(merge).substr(space + 1);
        joined.assign(left).append(right);
        const auto leftId = vocabulary_.find(left);
        const auto rightId = vocabulary_.find(right);
        const auto resultId = vocabulary_.find(joined);
        if (!leftId || !rightId || !resultId)
            continue;
        // A repeated pair keeps its best rank.
        merges_.try_emplace(pairKey(*leftId, *rightId), Merge{static_cast<std::int32_t>(rank), *resultId});
    }
}

void ByteLevelBpe::encodeFragment(std::string_view fragment, bool, std::vector<std::int32_t>& out) const {
    std::vector<std::string_view> words;
    preTokenizer_.split(fragment, words);
    Scratch scratch;
    for (const std::string_view word : words)
        encodeWord(word, scratch, out);
}

void ByteLevelBpe::encodeWord(std::string_view word, Scratch& scratch, std::vector<std::int32_t>& out) const {
    if (word.empty())
        return;
    std::string& patched = scratch.patched;
    const auto spellable = [this](char c) { return byteTokens_[static_cast<unsigned char>(c)] >= 0; };
    if (!std::all_of(word.begin(), word.end(), spellable)) {
        patched.clear();
        for (const char c : word) {
            if (spellable(c))
                patched.push_back(c);
            else
                patched.append(kReplacement); // a byte the vocabulary cannot spell becomes U+FFFD
        }
        word = patched;
    }
    if (wholeWordsFirst_) {
        spellBytes(word, scratch.spelled);
        if (const auto id = vocabulary_.find(scratch.spelled)) {
            out.push_back(*id);
            return;
        }
    }
    // Lowest rank first; among equal ranks the leftmost pair.
    const auto worse = [](const Candidate& a, const Candidate& b) {
        return a.rank != b.rank ? a.rank > b.rank : a.left > b.left;
    };
    const auto n = static_cast<std::int32_t>(word.size());
    std::vector<Symbol>& symbols = scratch.symbols;
    symbols.resize(static_cast<std::size_t>(n));
    for (std::int32_t i = 0; i < n; ++i)
        symbols[static_cast<std::size_t>(i)] = {
            byteTokens_[static_cast<unsigned char>(word[static_cast<std::size_t>(i)])], i - 1,
            i + 1 < n ? i + 1 : -1};
    std::vector<Candidate>& heap = scratch.heap;
    heap.clear();
    const auto consider = [&](std::int32_t left) {
        if (left < 0)
            return;
        const Symbol& l = symbols[static_cast<std::size_t>(left)];
        if (l.next < 0)
            return;
        const Symbol& r = symbols[static_cast<std::size_t>(l.next)];
        const auto it = merges_.find(pairKey(l.token, r.token));
        if (it == merges_.end())
            return;
        heap.push_back({it->second.rank, left, l.token, r.token, it->second.result});
        std::push_heap(heap.begin(), heap.end(), worse);
    };
    for (std::int32_t i = 0; i + 1 < n; ++i)
        consider(i);
    while (!heap.empty()) {
        std::pop_heap(heap.begin(), heap.end(), worse);
        const Candidate c = heap.back();
        heap.pop_back();
        Symbol& l = symbols[static_cast<std::size_t>(c.left)];
        // Stale when either side has changed since the pair was queued.
        if (l.token != c.leftToken || l.next < 0 ||
            symbols[static_cast<std::size_t>(l.next)].token != c.rightToken)
            continue;
        Symbol& r = symbols[static_cast<std::size_t>(l.next)];
        l.token = c.result;
        l.next = r.next;
        if (r.next >= 0)
            symbols[static_cast<std::size_t>(r.next)].prev = c.left;
        r.token = -1;
        consider(l.prev);
        consider(c.left);
    }
    for (std::int32_t i = 0; i >= 0; i = symbols[static_cast<std::size_t>(i)].next)
        out.push_back(symbols[static_cast<std::size_t>(i)].token);
}

std::string ByteLevelBpe::tokenBytes(std::int32_t token) const {
    if (!vocabulary_.contains(token))
        return {};
    const std::string& text = vocabulary_.text(token);
    switch (vocabulary_.type(token)) {
    case TokenType::control:
        return {};
    case TokenType::userDefined:
        return text;
    default:
        break;
    }
    std::string out;
    out.reserve(text.size());
    for (std::size_t offset = 0; offset < text.size();) {
        const Utf8Char ch = decodeUtf8(text, offset);
        const int byte = ch.valid ? charToByte(ch.codePoint) : -1;
        if (byte >= 0)
            out.push_back(static_cast<char>(byte));
        else
            out.append(text, offset, ch.length); // not a byte spelling: keep the text itself
        offset += ch.length;
    }
    return out;
}

} // namespace parlune::llm
