#include "llm/tokenizer/Vocabulary.h"

#include "llm/tokenizer/TokenizerError.h"

namespace parlune::llm {

Vocabulary::Vocabulary(std::vector<std::string> texts, const std::vector<std::int32_t>& types,
                       std::vector<float> scores)
    : texts_(std::move(texts)), scores_(std::move(scores)) {
    if (texts_.empty())
        throw TokenizerError("the vocabulary has no tokens");
    if (texts_.size() > static_cast<std::size_t>(INT32_MAX))
        throw TokenizerError("the vocabulary has too many tokens");
    if (!types.empty() && types.size() != texts_.size())
        throw TokenizerError("the vocabulary has " + std::to_string(texts_.size()) + " tokens but " +
                             std::to_string(types.size()) + " token types");
    if (!scores_.empty() && scores_.size() != texts_.size())
        throw TokenizerError("the vocabulary has " + std::to_string(texts_.size()) + " tokens but " +
                             std::to_string(scores_.size()) + " scores");
    types_.reserve(texts_.size());
    for (std::size_t i = 0; i < texts_.size(); ++i) {
        const std::int32_t type = types.empty() ? 1 : types[i];
        if (type < 0 || type > 6)
            throw TokenizerError("token " + std::to_string(i) + " has unknown type " + std::to_string(type));
        types_.push_back(static_cast<TokenType>(type));
    }
    ids_.reserve(texts_.size());
    for (std::size_t i = 0; i < texts_.size(); ++i)
        ids_.emplace(texts_[i], static_cast<std::int32_t>(i));
}

std::optional<std::int32_t> Vocabulary::find(std::string_view text) const {
    const auto it = ids_.find(text);
    if (it == ids_.end())
        return std::nullopt;
    return it->second;
}

} // namespace parlune::llm
