#include "TinyVocabularies.h"

#include "llm/gguf/GgufFile.h"
#include "llm/gguf/GgufWriter.h"
#include "llm/tokenizer/Tokenizer.h"

#include <gtest/gtest.h>

namespace parlune::llm {
namespace {

class TokenizerGgufTest : public ::testing::Test {
protected:
    void SetUp() override {
        const TokenizerConfig config = test::byteLevelConfig({{"h", "i"}}, {"<|im_end|>"}, "qwen2");
        writer.setString("general.architecture", "qwen2");
        writer.setString("tokenizer.ggml.model", "gpt2");
        writer.setString("tokenizer.ggml.pre", "qwen2");
        writer.setStringArray("tokenizer.ggml.tokens", config.tokens);
        writer.setInt32Array("tokenizer.ggml.token_type", config.tokenTypes);
        writer.setStringArray("tokenizer.ggml.merges", config.merges);
        writer.setUInt32("tokenizer.ggml.eos_token_id", 257);
        writer.setBool("tokenizer.ggml.add_bos_token", false);
    }
    std::unique_ptr<Tokenizer> load() const {
        return Tokenizer::fromGguf(*GgufFile::fromBuffer(writer.toBytes()));
    }

    GgufWriter writer;
};

TEST_F(TokenizerGgufTest, MissingOrMistypedMetadataIsAClearError) {
    writer.setString("tokenizer.ggml.model", "bert");
    EXPECT_THROW(load(), TokenizerError);
    writer.setString("tokenizer.ggml.model", "gpt2");
    writer.setInt32Array("tokenizer.ggml.merges", {1, 2});
    EXPECT_THROW(load(), TokenizerError);
    writer.setStringArray("tokenizer.ggml.merges", {});
    writer.setString("tokenizer.ggml.eos_token_id", "257");
    EXPECT_THROW(load(), TokenizerError);
    writer.setUInt32("tokenizer.ggml.eos_token_id", 4000);
    EXPECT_THROW(load(), TokenizerError);
    writer.setInt32("tokenizer.ggml.eos_token_id", -1);
    EXPECT_FALSE(load()->eosToken()) << "-1 stands for no token";
    writer.setInt32Array("tokenizer.ggml.token_type", {1, 1});
    EXPECT_THROW(load(), TokenizerError);
}

} // namespace
} // namespace parlune::llm
