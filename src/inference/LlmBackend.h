#pragma once

#include "inference/InstructionPrefixCache.h"
#include "inference/ModelLocator.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace parlune {

namespace llm {
class ChatFormat;
class Model;
class ThreadPool;
class TokenByteTable;
class Tokenizer;
struct TextRange;
} // namespace llm

// One request to the model: a system turn, a user turn, greedy decoding up to a token limit,
// optionally constrained to a JSON object of these string properties.
struct LlmRequest {
    std::string instructions;
    std::string prompt;
    std::int64_t maximumTokens = 256;
    std::vector<std::string> schemaProperties; // empty: free text
};

struct LlmResponse {
    std::string text;
    std::int64_t tokens = 0;
    std::int64_t promptTokens = 0;
    std::int64_t promptTokensReused = 0; // taken from the instruction cache
    double secondsToFirstToken = 0.0;    // from the request to the first generated token
    double totalSeconds = 0.0;
    std::int64_t draftTokensProposed = 0; // guessed from the prompt and checked
    std::int64_t draftTokensAccepted = 0; // generated without a model run of their own
    std::int64_t forwardPasses = 0;       // model runs after the prompt
};

// The model file loaded for inference: weights, tokenizer, chat format and threads, plus the
// cache of prefilled instructions. Loaded on first use. Every member function runs on the
// inference worker thread only (the prefix cache itself may be cleared from anywhere).
// Failures are LanguageModelGenerationError; a raised stop flag gives CancellationError. A file
// that changes on disk while loaded ends the request using it with an error and is loaded again
// by the next one.
class LlmBackend {
public:
    // Instruction states go to `prefixCache` under `ticket` (see InstructionPrefixCache::reset).
    LlmBackend(std::filesystem::path path, ModelFileIdentity identity, int threadCount,
               std::shared_ptr<InstructionPrefixCache> prefixCache, InstructionPrefixCache::Ticket ticket);
    ~LlmBackend();
    LlmBackend(const LlmBackend&) = delete;
    LlmBackend& operator=(const LlmBackend&) = delete;

    const std::filesystem::path& path() const { return path_; }
    const ModelFileIdentity& identity() const { return identity_; } // of the file when chosen
    void load();
    bool isLoaded() const { return model_ != nullptr; }

    // Tokens the instructions take as a system turn (with the sequence start), and the tokens
    // a prompt takes as a user turn with the assistant's opening.
    std::int64_t instructionTokenCount(const std::string& instructions);
    std::int64_t promptTokenCount(const std::string& prompt);

    // Computes and caches the key/value state of these instructions.
    void prewarm(const std::string& instructions, const std::atomic<bool>& stop);
    LlmResponse generate(const LlmRequest& request, const std::atomic<bool>& stop);

    InstructionPrefixCache& prefixCache() { return *prefixCache_; }
    // Benchmarks: free-text responses run to exactly this many tokens.
    void forceResponseTokens(std::optional<std::int64_t> count) { forcedResponseTokens_ = count; }
    // Whether answers are sped up with guesses from the prompt (never changing them); on by default.
    void draftFromPrompt(bool on) { draftFromPrompt_ = on; }

private:
    std::vector<std::int32_t> encode(const std::string& text,
                                     const std::vector<llm::TextRange>& literal) const;
    std::vector<std::int32_t> systemPrefixTokens(const std::string& instructions) const;
    // Leaves `session` holding exactly `tokens`, computed in slices so a stop request is
    // noticed during a long prompt. Returns how many came from the instruction cache.
    std::int64_t prefill(llm::GenerationSession& session, const std::vector<std::int32_t>& prefix,
                         const std::vector<std::int32_t>& tokens, const std::atomic<bool>& stop);

    void unload();

    std::filesystem::path path_;
    ModelFileIdentity identity_;
    int threadCount_;
    std::shared_ptr<InstructionPrefixCache> prefixCache_;
    InstructionPrefixCache::Ticket ticket_;
    std::shared_ptr<const llm::Model> model_;
    std::shared_ptr<const llm::Tokenizer> tokenizer_;
    std::shared_ptr<const llm::ChatFormat> chatFormat_;
    std::unique_ptr<llm::ThreadPool> pool_;
    std::shared_ptr<const llm::TokenByteTable> tokenBytes_; // built on the first constrained request
    std::optional<std::int64_t> promptOverhead_;
    std::optional<std::int64_t> forcedResponseTokens_;
    bool draftFromPrompt_ = true;
};

} // namespace parlune
