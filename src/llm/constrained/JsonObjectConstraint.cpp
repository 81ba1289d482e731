#include "llm/constrained/JsonObjectConstraint.h"

#include "llm/constrained/TokenByteTable.h"

#include <algorithm>
#include <stdexcept>

namespace parlune::llm {

JsonObjectConstraint::JsonObjectConstraint(std::shared_ptr<const TokenByteTable> table,
                                           std::vector<std::string> propertyNames)
    : table_(std::move(table)), grammar_(std::move(propertyNames)), state_(grammar_.initial()) {}

bool JsonObjectConstraint::allows(std::int32_t token) const {
    if (token < 0 || token >= table_->size()) {
        return false;
    }
    if (table_->isEndOfGeneration(token)) {
        return isComplete();
    }
    const std::string& bytes = table_->bytes(token);
    if (bytes.empty()) {
        return false; // a control token would add nothing and could repeat forever
    }
    JsonObjectGrammar::State next = state_;
    return grammar_.advance(next, bytes);
}

std::vector<std::int32_t> JsonObjectConstraint::allowedTokens() const {
    std::vector<std::int32_t> allowed;
    if (isComplete()) {
        return table_->endOfGeneration();
    }
    for (int first = 0; first < 256; ++first) {
        JsonObjectGrammar::State afterFirst = state_;
        if (!grammar_.advance(afterFirst, static_cast<unsigned char>(first))) {
            continue;
        }
        for (const std::int32_t token : table_->startingWith(static_cast<unsigned char>(first))) {
            const std::string& bytes = table_->bytes(token);
            JsonObjectGrammar::State next = afterFirst;
            bool valid = true;
            for (std::size_t i = 1; i < bytes.size() && valid; ++i) {
                valid = grammar_.advance(next, static_cast<unsigned char>(bytes[i]));
            }
            if (valid) {
                allowed.push_back(token);
            }
        }
    }
    std::sort(allowed.begin(), allowed.end());
    return allowed;
}

bool JsonObjectConstraint::fits(const JsonObjectGrammar::State& after, std::int64_t remainingTokens) const {
    return static_cast<std::int64_t>(grammar_.completionLength(after)) <= remainingTokens - 1;
}

std::int32_t JsonObjectConstraint::bestToken(std::span<const float> logits,
                                             std::int64_t remainingTokens) const {
    const auto vocabulary = std::min<std::int64_t>(static_cast<std::int64_t>(logits.size()), table_->size());
    if (remainingTokens <= 0 || vocabulary <= 0) {
        return -1;
    }
    if (isComplete()) {
        std::int32_t best = -1;
        for (const std::int32_t token : table_->endOfGeneration()) {
            if (token < vocabulary && (best < 0 || logits[token] > logits[best])) {
                best = token;
            }
        }
        return best;
    }

    // Usually the model's own favourite is fine; check it before scanning the vocabulary.
    std::int32_t favourite = 0;
    for (std::int32_t token = 1; token < vocabulary; ++token) {
        if (logits[token] > logits[favourite]) {
            favourite = token;
        }
    }
    if (!table_->isEndOfGeneration(favourite) && !table_->bytes(favourite).empty()) {
        JsonObjectGrammar::State next = state_;
        if (grammar_.advance(next, table_->bytes(favourite)) && fits(next, remainingTokens)) {
            return favourite;
        }
    }

    std::int32_t best = -1;
    for (int first = 0; first < 256; ++first) {
        JsonObjectGrammar::State afterFirst = state_;
        if (!grammar_.advance(afterFirst, static_cast<unsigned char>(first))) {
            continue;
        }
        for (const std::int32_t token : table_->startingWith(static_cast<unsigned char>(first))) {
            if (token >= vocabulary) {
                break; // buckets are ascending
            }
            if (best >= 0 &&
                (logits[token] < logits[best] || (logits[token] == logits[best] && token > best))) {
                continue;
            }
            const std::string& bytes = table_->bytes(token);
            JsonObjectGrammar::State next = afterFirst;
            bool valid = true;
            for (std::size_t i = 1; i < bytes.size() && valid; ++i) {
                valid = grammar_.advance(next, static_cast<unsigned char>(bytes[i]));
            }
            if (valid && fits(next, remainingTokens)) {
                best = token;
            }
        }
    }
    return best;
}

void JsonObjectConstraint::accept(std::int32_t token) {
    if (!allows(token)) {
        throw std::logic_error("token not allowed by the JSON object constraint");
    }
    if (table_->isEndOfGeneration(token)) {
        return;
    }
    const std::string& bytes = table_->bytes(token);
    grammar_.advance(state_, bytes);
    text_ += bytes;
}

} // namespace parlune::llm
