#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace parlune::llm {

// Byte-level recogniser for one JSON object whose members are exactly the declared string
// properties, in declared order: {"a":"...","b":"..."}. String values take any JSON string
// (escapes, valid UTF-8, no raw control characters, no lone surrogate escapes). Whitespace is
// kept tight: only spaces and line feeds, at most a few, and only after '{', ':' and ',' and
// before '}'. Nothing may follow the closing brace.
class JsonObjectGrammar {
public:
    static constexpr std::uint8_t maximumWhitespaceRun = 4;

    // Where the recogniser stands; a small value, cheap to copy for look-ahead.
    struct State {
        std::uint8_t phase = 0;
        std::uint8_t count = 0;       // key bytes matched, hex digits read or whitespace seen
        std::uint8_t utf8Pending = 0; // continuation bytes still owed by a multi-byte character
        std::uint8_t utf8Low = 0x80;  // allowed range of the next continuation byte
        std::uint8_t utf8High = 0xBF;
        std::uint16_t property = 0; // index of the member being read
        std::uint16_t hexFirst = 0; // first digit of a \u escape, to refuse surrogates
    };

    // Property names must be non-empty printable ASCII without '"' or '\'; throws
    // std::invalid_argument otherwise, or when there are none.
    explicit JsonObjectGrammar(std::vector<std::string> propertyNames);

    State initial() const { return State{}; }
    // Feeds one byte; false (and `state` unspecified) when the text would stop being a valid
    // prefix of such an object.
    bool advance(State& state, unsigned char byte) const;
    bool advance(State& state, const std::string& bytes) const;
    bool isComplete(const State& state) const;

    // Length of the shortest byte string that completes the object from `state`, and that
    // string itself. Completing never needs bytes other than ASCII and continuation bytes.
    std::size_t completionLength(const State& state) const;
    std::string completion(const State& state) const;

    const std::vector<std::string>& propertyNames() const { return names_; }

private:
    std::size_t restAfterValue(std::size_t property) const;

    std::vector<std::string> names_;
    std::vector<std::size_t> suffixLength_; // bytes of ,"name":"" for members after each index
};

} // namespace parlune::llm
