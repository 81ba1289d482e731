#pragma once

#include "llm/model/Model.h"
#include "llm/model/Rope.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace parlune::llm {

class ActivationBuffer;
class KvCache;
class ThreadPool;

// Runs the decoder over new tokens, appending their keys and values to a cache. One instance
// holds scratch buffers, so it serves one caller at a time; the model is shared and read-only.
class Transformer {
public:
    // Prompts longer than this are processed in several batches (bounds scratch memory).
    static constexpr std::int64_t maxBatch = 256;

    Transformer(std::shared_ptr<const Model> model, ThreadPool& pool);
    ~Transformer();
    Transformer(const Transformer&) = delete;
    Transformer& operator=(const Transformer&) = delete;

    const Model& model() const { return *model_; }

    // Processes `tokens` at positions cache.length() onward. Writes the logits of the last
    // position to `logits` (vocabularySize floats), or of every new position (tokens.size() rows)
    // when `allPositions`. Throws ModelError for a token outside the vocabulary and
    // std::length_error when the context is full; the cache is unchanged after a throw.
    void forward(std::span<const std::int32_t> tokens, KvCache& cache, std::vector<float>& logits,
                 bool allPositions = false);

private:
    struct Scratch;
    struct MatmulJob;

    void forwardBatch(std::span<const std::int32_t> tokens, KvCache& cache, float* logits, bool allPositions);
    // `window` > 0 limits each query to that many latest positions (sliding-window layers).
    void attention(KvCache& cache, std::int64_t layer, std::int64_t firstPosition, std::int64_t count,
                   std::int64_t window);
    void runMatmuls(std::span<const MatmulJob> jobs);
    void forEachChunk(std::int64_t count, const std::function<void(std::int64_t)>& body);

    std::shared_ptr<const Model> model_;
    ThreadPool& pool_;
    Rope rope_;
    Rope slidingRope_; // sliding-window layers' RoPE (Gemma 3); unused by other models
    std::unique_ptr<Scratch> scratch_;
};

} // namespace parlune::llm
