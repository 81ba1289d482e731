#include "inference/ModelBundle.h"

#include "llm/gguf/GgufFile.h"
#include "llm/model/Model.h"
#include "llm/tokenizer/ChatFormat.h"
#include "llm/tokenizer/Tokenizer.h"

#include <exception>
#include <new>

namespace parlune {

namespace {

// File-reader messages start with the path; the caller names the file itself.
std::string withoutPath(std::string message, const std::filesystem::path& path) {
    const std::string prefix = path.string() + ": ";
    if (message.starts_with(prefix)) {
        message.erase(0, prefix.size());
    }
    return message;
}

} // namespace

ModelBundle ModelBundle::load(const std::filesystem::path& path) {
    try {
        ModelBundle bundle;
        bundle.model = llm::Model::load(path);
        const llm::GgufFile& file = bundle.model->file();
        if (!file.hasKey("tokenizer.ggml.model")) {
            throw Unusable("the file has no tokenizer");
        }
        bundle.tokenizer = llm::Tokenizer::fromGguf(file);
        const auto chatTemplate = file.getString("tokenizer.chat_template");
        if (!chatTemplate) {
            throw Unusable("the file has no chat template");
        }
        bundle.chatFormat =
            std::make_shared<const llm::ChatFormat>(llm::ChatFormat::fromTemplate(*chatTemplate));
        return bundle;
    } catch (const Unusable&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw Unusable("there is not enough memory to load it");
    } catch (const std::exception& failure) {
        throw Unusable(withoutPath(failure.what(), path));
    }
}

} // namespace parlune
