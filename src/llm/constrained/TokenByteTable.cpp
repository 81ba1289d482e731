#include "llm/constrained/TokenByteTable.h"

#include "llm/tokenizer/Tokenizer.h"

#include <algorithm>

namespace parlune::llm {

TokenByteTable::TokenByteTable(const Tokenizer& tokenizer) {
    const std::int32_t count = tokenizer.vocabularySize();
    bytes_.resize(static_cast<std::size_t>(count));
    singleByte_.fill(-1);
    for (std::int32_t token = 0; token < count; ++token) {
        if (tokenizer.isEndOfGeneration(token)) {
            endOfGeneration_.push_back(token);
            continue;
        }
        std::string text = tokenizer.tokenBytes(token);
        if (text.empty()) {
            continue;
        }
        const auto first = static_cast<unsigned char>(text.front());
        byFirstByte_[first].push_back(token);
        if (text.size() == 1 && singleByte_[first] < 0) {
            singleByte_[first] = token;
        }
        bytes_[static_cast<std::size_t>(token)] = std::move(text);
    }
}

bool TokenByteTable::isEndOfGeneration(std::int32_t token) const {
    return std::binary_search(endOfGeneration_.begin(), endOfGeneration_.end(), token);
}

} // namespace parlune::llm
