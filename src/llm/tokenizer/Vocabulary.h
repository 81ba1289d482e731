#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace parlune::llm {

// Token kinds as `tokenizer.ggml.token_type` numbers them.
enum class TokenType : std::int32_t {
    undefined = 0,
    normal = 1,
    unknown = 2,
    control = 3,
    userDefined = 4,
    unused = 5,
    byte = 6
};

// Token texts (in the vocabulary's own spelling), kinds and scores, with lookup by text.
class Vocabulary {
public:
    // `types` and `scores` may be empty (all normal, all zero); otherwise one per token.
    Vocabulary(std::vector<std::string> texts, const std::vector<std::int32_t>& types,
               std::vector<float> scores);

    std::int32_t size() const { return static_cast<std::int32_t>(texts_.size()); }
    bool contains(std::int32_t id) const { return id >= 0 && id < size(); }
    const std::string& text(std::int32_t id) const { return texts_[static_cast<std::size_t>(id)]; }
    TokenType type(std::int32_t id) const { return types_[static_cast<std::size_t>(id)]; }
    float score(std::int32_t id) const {
        return scores_.empty() ? 0.0f : scores_[static_cast<std::size_t>(id)];
    }
    // First token with exactly this text.
    std::optional<std::int32_t> find(std::string_view text) const;

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
    };

    std::vector<std::string> texts_;
    std::vector<TokenType> types_;
    std::vector<float> scores_;
    std::unordered_map<std::string, std::int32_t, Hash, std::equal_to<>> ids_;
};

} // namespace parlune::llm
