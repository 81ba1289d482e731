#include "llm/tokenizer/TokenDecoder.h"

#include "llm/tokenizer/Tokenizer.h"
#include "llm/tokenizer/Utf8.h"

namespace parlune::llm {

std::string TokenDecoder::push(std::int32_t token) {
    pending_ += tokenizer_.tokenBytes(token);
    const std::size_t held = incompleteUtf8Suffix(pending_);
    std::string ready = sanitizeUtf8(std::string_view(pending_).substr(0, pending_.size() - held));
    pending_.erase(0, pending_.size() - held);
    return release(std::move(ready));
}

std::string TokenDecoder::flush() {
    std::string rest = sanitizeUtf8(pending_);
    pending_.clear();
    return release(std::move(rest));
}

std::string TokenDecoder::release(std::string text) {
    if (atStart_ && !text.empty()) {
        atStart_ = false;
        if (tokenizer_.addsSpacePrefix() && text.front() == ' ') {
            text.erase(0, 1);
        }
    }
    return text;
}

} // namespace parlune::llm
