#include "llm/constrained/JsonObjectGrammar.h"

#include <stdexcept>

namespace parlune::llm {

namespace {

enum Phase : std::uint8_t {
    start,       // before '{'
    beforeKey,   // after '{' or ',': whitespace, then '"'
    key,         // inside the key; count = bytes of the name matched
    afterKey,    // after the key's closing quote: whitespace, then ':'
    beforeValue, // after ':': whitespace, then '"'
    value,       // inside the string value
    escape,      // after a backslash
    hex,         // inside \uXXXX; count = digits read
    afterValue,  // after the value's closing quote: whitespace, then ',' or '}'
    done,
};

bool isWhitespace(unsigned char byte) {
    return byte == ' ' || byte == '\n';
}

int hexValue(unsigned char byte) {
    if (byte >= '0' && byte <= '9') {
        return byte - '0';
    }
    if (byte >= 'a' && byte <= 'f') {
        return byte - 'a' + 10;
    }
    if (byte >= 'A' && byte <= 'F') {
        return byte - 'A' + 10;
    }
    return -1;
}

// Whitespace allowed in a gap: one more byte unless the run is already at its limit.
bool takeWhitespace(JsonObjectGrammar::State& state) {
    if (state.count >= JsonObjectGrammar::maximumWhitespaceRun) {
        return false;
    }
    ++state.count;
    return true;
}

// Starts a UTF-8 sequence with its lead byte; sets the range its first continuation may take
// so that overlong forms, surrogates and code points above U+10FFFF are refused.
bool startUtf8(JsonObjectGrammar::State& state, unsigned char byte) {
    state.utf8Low = 0x80;
    state.utf8High = 0xBF;
    if (byte >= 0xC2 && byte <= 0xDF) {
        state.utf8Pending = 1;
    } else if (byte >= 0xE0 && byte <= 0xEF) {
        state.utf8Pending = 2;
        if (byte == 0xE0) {
            state.utf8Low = 0xA0;
        } else if (byte == 0xED) {
            state.utf8High = 0x9F;
        }
    } else if (byte >= 0xF0 && byte <= 0xF4) {
        state.utf8Pending = 3;
        if (byte == 0xF0) {
            state.utf8Low = 0x90;
        } else if (byte == 0xF4) {
            state.utf8High = 0x8F;
        }
    } else {
        return false;
    }
    return true;
}

} // namespace

JsonObjectGrammar::JsonObjectGrammar(std::vector<std::string> propertyNames)
    : names_(std::move(propertyNames)) {
    if (names_.empty() || names_.size() > 0xFFFF) {
        throw std::invalid_argument("a JSON object constraint needs at least one property");
    }
    for (const std::string& name : names_) {
        if (name.empty() || name.size() > 0xFF) {
            throw std::invalid_argument("property names must have 1 to 255 bytes");
        }
        for (const char c : name) {
            const auto byte = static_cast<unsigned char>(c);
            if (byte < 0x20 || byte > 0x7E || byte == '"' || byte == '\\') {
                throw std::invalid_argument(
                    "property names must be printable ASCII without quotes or backslashes");
            }
        }
    }
    suffixLength_.assign(names_.size() + 1, 0);
    for (std::size_t i = names_.size(); i-- > 0;) {
        // ,"name":""  (the first member has '{' instead of ',')
        suffixLength_[i] = suffixLength_[i + 1] + names_[i].size() + 6;
    }
}

bool JsonObjectGrammar::advance(State& state, unsigned char byte) const {
    switch (state.phase) {
    case start:
        if (byte != '{') {
            return false;
        }
        state = State{};
        state.phase = beforeKey;
        return true;
    case beforeKey:
        if (isWhitespace(byte)) {
            return takeWhitespace(state);
        }
        if (byte != '"') {
            return false;
        }
        state.phase = key;
        state.count = 0;
        return true;
    case key: {
        const std::string& name = names_[state.property];
        if (state.count < name.size()) {
            if (byte != static_cast<unsigned char>(name[state.count])) {
                return false;
            }
            ++state.count;
            return true;
        }
        if (byte != '"') {
            return false;
        }
        state.phase = afterKey;
        state.count = 0;
        return true;
    }
    case afterKey:
        if (isWhitespace(byte)) {
            return takeWhitespace(state);
        }
        if (byte != ':') {
            return false;
        }
        state.phase = beforeValue;
        state.count = 0;
        return true;
    case beforeValue:
        if (isWhitespace(byte)) {
            return takeWhitespace(state);
        }
        if (byte != '"') {
            return false;
        }
        state.phase = value;
        state.count = 0;
        state.utf8Pending = 0;
        return true;
    case value:
        if (state.utf8Pending > 0) {
            if (byte < state.utf8Low || byte > state.utf8High) {
                return false;
            }
            --state.utf8Pending;
            state.utf8Low = 0x80;
            state.utf8High = 0xBF;
            return true;
        }
        if (byte == '"') {
            state.phase = afterValue;
            state.count = 0;
            return true;
        }
        if (byte == '\\') {
            state.phase = escape;
            return true;
        }
        if (byte < 0x20 || byte == 0x7F) {
            return false;
        }
        if (byte < 0x80) {
            return true;
        }
        return startUtf8(state, byte);
    case escape:
        switch (byte) {
        case '"':
        case '\\':
        case '/':
        case 'b':
        case 'f':
        case 'n':
        case 'r':
        case 't':
            state.phase = value;
            return true;
        case 'u':
            state.phase = hex;
            state.count = 0;
            return true;
        default:
            return false;
        }
    case hex: {
        const int digit = hexValue(byte);
        if (digit < 0) {
            return false;
        }
        if (state.count == 0) {
            state.hexFirst = static_cast<std::uint16_t>(digit);
        } else if (state.count == 1 && state.hexFirst == 0xD && digit >= 8) {
            return false; // a lone surrogate half: not every reader accepts it
        }
        if (++state.count == 4) {
            state.phase = value;
            state.count = 0;
        }
        return true;
    }
    case afterValue:
        if (isWhitespace(byte)) {
            return takeWhitespace(state);
        }
        if (byte == ',' && state.property + 1u < names_.size()) {
            ++state.property;
            state.phase = beforeKey;
            state.count = 0;
            return true;
        }
        if (byte == '}' && state.property + 1u == names_.size()) {
            state.phase = done;
            state.count = 0;
            return true;
        }
        return false;
    default:
        return false;
    }
}

bool JsonObjectGrammar::advance(State& state, const std::string& bytes) const {
    for (const char c : bytes) {
        if (!advance(state, static_cast<unsigned char>(c))) {
            return false;
        }
    }
    return true;
}

bool JsonObjectGrammar::isComplete(const State& state) const {
    return state.phase == done;
}

std::size_t JsonObjectGrammar::restAfterValue(std::size_t property) const {
    return suffixLength_[property + 1] + 1;
}

std::size_t JsonObjectGrammar::completionLength(const State& state) const {
    const std::size_t p = state.property;
    const std::size_t closeValue = 1 + restAfterValue(p); // closing quote, later members, '}'
    switch (state.phase) {
    case start:
        return 1 + suffixLength_[0];
    case beforeKey:
        return suffixLength_[p]; // the member without its leading comma, later members, the brace
    case key:
        return names_[p].size() - state.count + 4 + restAfterValue(p);
    case afterKey:
        return 3 + restAfterValue(p);
    case beforeValue:
        return 2 + restAfterValue(p);
    case value:
        return state.utf8Pending + closeValue;
    case escape:
        return 1 + closeValue;
    case hex:
        return 4u - state.count + closeValue;
    case afterValue:
        return restAfterValue(p);
    default:
        return 0;
    }
}

std::string JsonObjectGrammar::completion(const State& state) const {
    std::string out;
    const std::size_t p = state.property;
    const auto closeMembers = [&](std::size_t from) {
        for (std::size_t i = from; i < names_.size(); ++i) {
            out += ",\"" + names_[i] + "\":\"\"";
        }
        out += '}';
    };
    switch (state.phase) {
    case start:
        out = "{\"" + names_[0] + "\":\"\"";
        closeMembers(1);
        break;
    case beforeKey:
        out = "\"" + names_[p] + "\":\"\"";
        closeMembers(p + 1);
        break;
    case key:
        out = names_[p].substr(state.count) + "\":\"\"";
        closeMembers(p + 1);
        break;
    case afterKey:
        out = ":\"\"";
        closeMembers(p + 1);
        break;
    case beforeValue:
        out = "\"\"";
        closeMembers(p + 1);
        break;
    case value:
    case escape:
    case hex:
        if (state.phase == value) {
            // The smallest continuation each owed byte may take.
            if (state.utf8Pending > 0) {
                out += static_cast<char>(state.utf8Low);
                out.append(state.utf8Pending - 1u, static_cast<char>(0x80));
            }
        } else if (state.phase == escape) {
            out += 'n';
        } else {
            out.append(4u - state.count, '0');
        }
        out += '"';
        closeMembers(p + 1);
        break;
    case afterValue:
        closeMembers(p + 1);
        break;
    default:
        break;
    }
    return out;
}

} // namespace parlune::llm
