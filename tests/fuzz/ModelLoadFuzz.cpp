// libFuzzer entry for everything built from an untrusted model file after the reader: the
// hyper-parameters, the model's weight table, the tokenizer and the chat format, then a short
// encode and decode and one token through the model when all of them load. Any input either
// loads or is refused with the error type of the part that refused it; anything else (a crash,
// a sanitizer report, another exception, a blow-up in memory) is a finding.

#include "llm/gguf/GgufFile.h"
#include "llm/model/KvCache.h"
#include "llm/model/Model.h"
#include "llm/model/ModelError.h"
#include "llm/model/Transformer.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/tokenizer/ChatFormat.h"
#include "llm/tokenizer/Tokenizer.h"
#include "llm/tokenizer/TokenizerError.h"

#include <cstdint>
#include <cstring>
#include <vector>

using namespace parlune::llm;

namespace {

volatile std::size_t sink = 0;

// Small enough that one token through any model the input can describe stays cheap.
constexpr std::size_t maxForwardBytes = std::size_t{1} << 20;

void exerciseTokenizer(const Tokenizer& tokenizer) {
    static constexpr std::string_view samples[] = {"Hello, world! 123", " \xc4\xa0 a\tb\n\xe2\x80\x94\xff",
                                                   "<|im_start|>user\nhi<|im_end|>"};
    for (const std::string_view sample : samples) {
        const std::vector<std::int32_t> ids = tokenizer.encode(sample, true);
        for (const std::int32_t id : ids) {
            if (id < 0 || id >= tokenizer.vocabularySize()) {
                __builtin_trap();
            }
        }
        sink = sink + tokenizer.decode(ids).size();
    }
}

void exerciseModel(const std::shared_ptr<const Model>& model) {
    if (model->weightBytes() > maxForwardBytes || model->config().hiddenSize > 4096) {
        return;
    }
    ThreadPool pool(1);
    Transformer transformer(model, pool);
    KvCache cache(model->config());
    std::vector<float> logits;
    const std::int32_t token[] = {0};
    transformer.forward(token, cache, logits);
    if (logits.size() != static_cast<std::size_t>(model->config().vocabularySize)) {
        __builtin_trap();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::vector<std::byte> bytes(size);
    if (size > 0) {
        std::memcpy(bytes.data(), data, size);
    }
    std::shared_ptr<const GgufFile> file;
    try {
        file = GgufFile::fromBuffer(std::move(bytes), "fuzz-input");
    } catch (const GgufError&) {
        return 0;
    }
    try {
        const std::shared_ptr<const Tokenizer> tokenizer = Tokenizer::fromGguf(*file);
        exerciseTokenizer(*tokenizer);
    } catch (const TokenizerError&) {
    }
    if (const auto chatTemplate = file->getString("tokenizer.chat_template")) {
        try {
            const ChatFormat format = ChatFormat::fromTemplate(*chatTemplate);
            sink = sink + format.formatPrompt("system", "user").size();
        } catch (const ChatFormatError&) {
        }
    }
    try {
        exerciseModel(Model::fromFile(file));
    } catch (const ModelError&) {
    }
    return 0;
}
