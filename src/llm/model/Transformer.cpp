#include "llm/model/Transformer.h"

#include "llm/model/GeluGate.h"
#include "llm/model/KvCache.h"
#include "llm/model/ModelError.h"
#include "llm/model/SwiGlu.h"
#include "llm/parallel/ThreadPool.h"
#include "llm/tensor/MatMul.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <functional>
#include <stdexcept>
#include <string>

namespace parlune::llm {

namespace {

// Rows a worker takes at a time: enough to keep the kernel streaming, few enough to balance.
constexpr std::int64_t rowsPerChunk = 32;
// Query tokens of one head handled together by attention.
constexpr std::int64_t attentionTokenBlock = 16;
// Multiply-adds of attention below which one thread does it alone (about ten microseconds).
constexpr std::int64_t serialAttentionWork = 1 << 16;

void rmsNorm(const float* x, const float* weight, float* out, std::int64_t n, double epsilon) {
    double sum = 0.0;
    for (std::int64_t i = 0; i < n; ++i) {
        sum += static_cast<double>(x[i]) * x[i];
    }
    const auto scale = static_cast<float>(1.0 / std::sqrt(sum / static_cast<double>(n) + epsilon));
    for (std::int64_t i = 0; i < n; ++i) {
        out[i] = x[i] * scale * weight[i];
    }
}

void addVector(float* out, std::span<const float> bias, std::int64_t rows, std::int64_t stride) {
    if (bias.empty()) {
        return;
    }
    for (std::int64_t t = 0; t < rows; ++t) {
        float* row = out + t * stride;
        for (std::size_t i = 0; i < bias.size(); ++i) {
            row[i] += bias[i];
        }
    }
}

// Sliding-window layers rotate with their own base and without context scaling.
ModelConfig slidingRopeConfig(const ModelConfig& config) {
    ModelConfig sliding = config;
    sliding.ropeFreqBase = config.slidingRopeFreqBase;
    sliding.ropeScaling = RopeScaling{};
    return sliding;
}

void normRows(float* rows, std::span<const float> weight, std::int64_t count, std::int64_t width,
              double epsilon) {
    for (std::int64_t t = 0; t < count; ++t) {
        rmsNorm(rows + t * width, weight.data(), rows + t * width, width, epsilon);
    }
}

} // namespace

struct Transformer::MatmulJob {
    const WeightMatrix* weights;
    const ActivationBuffer* input;
    float* output;
    std::int64_t outputStride;
};

namespace {

// Activations converted for each weight type a matrix group needs, reused across the group.
class PreparedInputs {
public:
    void reset() { used_ = 0; }

    const ActivationBuffer& get(GgmlType type, const float* x, std::int64_t rows, std::int64_t cols) {
        for (std::size_t i = 0; i < used_; ++i) {
            if (types_[i] == type) {
                return *buffers_[i];
            }
        }
        if (used_ == buffers_.size()) {
            buffers_.push_back(std::make_unique<ActivationBuffer>());
            types_.push_back(type);
        }
        types_[used_] = type;
        ActivationBuffer& buffer = *buffers_[used_++];
        prepareActivations(type, x, rows, cols, buffer);
        return buffer;
    }

private:
    std::vector<std::unique_ptr<ActivationBuffer>> buffers_;
    std::vector<GgmlType> types_;
    std::size_t used_ = 0;
};

} // namespace

struct Transformer::Scratch {
    std::vector<float> x;         // residual stream [batch][hidden]
    std::vector<float> normed;    // [batch][hidden]
    std::vector<float> query;     // [batch][heads * headDim]
    std::vector<float> key;       // [batch][kvHeads * headDim]
    std::vector<float> value;     // [batch][kvHeads * valueDim]
    std::vector<float> attention; // [batch][heads * valueDim]
    std::vector<float> projected; // [batch][hidden]
    std::vector<float> gate;      // [batch][ffn]
    std::vector<float> up;        // [batch][ffn]
    std::vector<float> cosines;   // [batch][pairs]
    std::vector<float> sines;
    std::vector<float> slidingCosines; // the same for sliding-window layers
    std::vector<float> slidingSines;
    PreparedInputs inputs;
    std::int64_t rows = 0;

    void ensure(const ModelConfig& c, std::int64_t batch, std::int64_t pairs) {
        if (batch <= rows) {
            return;
        }
        const auto n = static_cast<std::size_t>(batch);
        x.resize(n * static_cast<std::size_t>(c.hiddenSize));
        normed.resize(x.size());
        projected.resize(x.size());
        query.resize(n * static_cast<std::size_t>(c.queryWidth()));
        key.resize(n * static_cast<std::size_t>(c.keyWidth()));
        value.resize(n * static_cast<std::size_t>(c.valueWidth()));
        attention.resize(n * static_cast<std::size_t>(c.headCount * c.valueDim));
        gate.resize(n * static_cast<std::size_t>(c.feedForwardSize));
        up.resize(gate.size());
        cosines.resize(n * static_cast<std::size_t>(pairs));
        sines.resize(cosines.size());
        slidingCosines.resize(cosines.size());
        slidingSines.resize(cosines.size());
        rows = batch;
    }
};

Transformer::Transformer(std::shared_ptr<const Model> model, ThreadPool& pool)
    : model_(std::move(model)), pool_(pool), rope_(model_->config(), model_->ropeFrequencyFactors()),
      slidingRope_(slidingRopeConfig(model_->config())), scratch_(std::make_unique<Scratch>()) {}

Transformer::~Transformer() = default;

void Transformer::forward(std::span<const std::int32_t> tokens, KvCache& cache, std::vector<float>& logits,
                          bool allPositions) {
    const ModelConfig& config = model_->config();
    if (tokens.empty()) {
        throw std::invalid_argument("Transformer::forward needs at least one token");
    }
    if (cache.headDim() != config.headDim) {
        throw std::invalid_argument("KvCache does not belong to this model");
    }
    for (const std::int32_t token : tokens) {
        if (token < 0 || token >= config.vocabularySize) {
            throw ModelError("token id " + std::to_string(token) + " is outside the vocabulary of " +
                             std::to_string(config.vocabularySize));
        }
    }
    const std::int64_t start = cache.length();
    const auto count = static_cast<std::int64_t>(tokens.size());
    cache.reserve(start + count);
    const auto vocabulary = static_cast<std::size_t>(config.vocabularySize);
    logits.resize(vocabulary * (allPositions ? tokens.size() : 1));
    try {
        for (std::int64_t done = 0; done < count; done += maxBatch) {
            const std::int64_t batch = std::min(maxBatch, count - done);
            const bool last = done + batch == count;
            float* out = allPositions ? logits.data() + static_cast<std::size_t>(done) * vocabulary
                                      : (last ? logits.data() : nullptr);
            forwardBatch(tokens.subspan(static_cast<std::size_t>(done), static_cast<std::size_t>(batch)),
                         cache, out, allPositions);
        }
    } catch (...) {
        cache.truncate(start);
        throw;
    }
}

void Transformer::forEachChunk(std::int64_t count, const std::function<void(std::int64_t)>& body) {
    // Workers pull chunks from a shared counter instead of taking fixed shares: on a machine
    // shared with other work, a preempted thread then delays only the chunk it holds.
    std::atomic<std::int64_t> next{0};
    const int threads = static_cast<int>(std::min<std::int64_t>(pool_.threadCount(), count));
    pool_.parallelFor(threads, [&](std::int64_t, std::int64_t) {
        for (std::int64_t chunk = next.fetch_add(1, std::memory_order_relaxed); chunk < count;
             chunk = next.fetch_add(1, std::memory_order_relaxed)) {
            body(chunk);
        }
    });
}

void Transformer::runMatmuls(std::span<const MatmulJob> jobs) {
    std::array<std::int64_t, 4> firstChunk{}; // at most three matrices share an input
    if (jobs.size() >= firstChunk.size()) {
        throw std::logic_error("Transformer::runMatmuls: too many matrices in one group");
    }
    for (std::size_t j = 0; j < jobs.size(); ++j) {
        firstChunk[j + 1] = firstChunk[j] + (jobs[j].weights->rows + rowsPerChunk - 1) / rowsPerChunk;
    }
    forEachChunk(firstChunk[jobs.size()], [&](std::int64_t chunk) {
        std::size_t j = 0;
        while (firstChunk[j + 1] <= chunk) {
            ++j;
        }
        const MatmulJob& job = jobs[j];
        const std::int64_t rowBegin = (chunk - firstChunk[j]) * rowsPerChunk;
        const std::int64_t rowEnd = std::min(job.weights->rows, rowBegin + rowsPerChunk);
        matmulRows(*job.weights, *job.input, rowBegin, rowEnd, job.output, job.outputStride);
    });
}

void Transformer::forwardBatch(std::span<const std::int32_t> tokens, KvCache& cache, float* logits,
                               bool allPositions) {
    const ModelConfig& c = model_->config();
    const Model& model = *model_;
    const auto n = static_cast<std::int64_t>(tokens.size());
    const std::int64_t start = cache.length();
    const std::int64_t pairs = rope_.pairCount();
    Scratch& s = *scratch_;
    s.ensure(c, n, pairs);

    const std::int64_t hidden = c.hiddenSize;
    const std::int64_t qWidth = c.queryWidth();
    const std::int64_t kWidth = c.keyWidth();
    const std::int64_t vWidth = c.valueWidth();
    const std::int64_t aWidth = c.headCount * c.valueDim;
    const std::int64_t ffn = c.feedForwardSize;

    for (std::int64_t t = 0; t < n; ++t) {
        float* x = s.x.data() + t * hidden;
        model.embed(tokens[static_cast<std::size_t>(t)], x);
        if (c.embeddingScale != 1.0) {
            const auto scale = static_cast<float>(c.embeddingScale);
            std::for_each(x, x + hidden, [scale](float& value) { value *= scale; });
        }
        rope_.angles(start + t, s.cosines.data() + t * pairs, s.sines.data() + t * pairs);
        if (c.slidingWindow > 0) {
            slidingRope_.angles(start + t, s.slidingCosines.data() + t * pairs,
                                s.slidingSines.data() + t * pairs);
        }
    }

    for (std::int64_t l = 0; l < c.layerCount; ++l) {
        const LayerWeights& w = model.layer(l);
        const bool sliding = c.isSlidingLayer(l);
        const Rope& rope = sliding ? slidingRope_ : rope_;
        const float* layerCosines = sliding ? s.slidingCosines.data() : s.cosines.data();
        const float* layerSines = sliding ? s.slidingSines.data() : s.sines.data();

        // Attention block.
        for (std::int64_t t = 0; t < n; ++t) {
            rmsNorm(s.x.data() + t * hidden, w.attentionNorm.data(), s.normed.data() + t * hidden, hidden,
                    c.rmsEpsilon);
        }
        s.inputs.reset();
        const MatmulJob qkv[] = {
            {&w.query, &s.inputs.get(w.query.type, s.normed.data(), n, hidden), s.query.data(), qWidth},
            {&w.key, &s.inputs.get(w.key.type, s.normed.data(), n, hidden), s.key.data(), kWidth},
            {&w.value, &s.inputs.get(w.value.type, s.normed.data(), n, hidden), s.value.data(), vWidth},
        };
        runMatmuls(qkv);
        addVector(s.query.data(), w.queryBias, n, qWidth);
        addVector(s.key.data(), w.keyBias, n, kWidth);
        addVector(s.value.data(), w.valueBias, n, vWidth);
        for (std::int64_t t = 0; t < n; ++t) {
            float* q = s.query.data() + t * qWidth;
            float* k = s.key.data() + t * kWidth;
            if (!w.queryNorm.empty()) {
                for (std::int64_t h = 0; h < c.headCount; ++h) {
                    rmsNorm(q + h * c.headDim, w.queryNorm.data(), q + h * c.headDim, c.headDim,
                            c.rmsEpsilon);
                }
                for (std::int64_t h = 0; h < c.kvHeadCount; ++h) {
                    rmsNorm(k + h * c.headDim, w.keyNorm.data(), k + h * c.headDim, c.headDim, c.rmsEpsilon);
                }
            }
            const float* cosines = layerCosines + t * pairs;
            const float* sines = layerSines + t * pairs;
            rope.rotate(q, c.headCount, cosines, sines);
            rope.rotate(k, c.kvHeadCount, cosines, sines);
            const float* v = s.value.data() + t * vWidth;
            const std::int64_t position = start + t;
            for (std::int64_t g = 0; g < c.kvHeadCount; ++g) {
                std::copy_n(k + g * c.headDim, c.headDim, cache.keys(l, g) + position * c.headDim);
                float* values = cache.values(l, g);
                for (std::int64_t d = 0; d < c.valueDim; ++d) {
                    values[d * cache.valueStride() + position] = v[g * c.valueDim + d];
                }
            }
        }
        attention(cache, l, start, n, sliding ? c.slidingWindow : 0);

        s.inputs.reset();
        const MatmulJob output[] = {
            {&w.attentionOutput, &s.inputs.get(w.attentionOutput.type, s.attention.data(), n, aWidth),
             s.projected.data(), hidden},
        };
        runMatmuls(output);
        if (!w.postAttentionNorm.empty()) {
            normRows(s.projected.data(), w.postAttentionNorm, n, hidden, c.rmsEpsilon);
        }
        for (std::int64_t i = 0; i < n * hidden; ++i) {
            s.x[static_cast<std::size_t>(i)] += s.projected[static_cast<std::size_t>(i)];
        }

        // Feed-forward block (gated: SwiGLU, or GELU for Gemma).
        for (std::int64_t t = 0; t < n; ++t) {
            rmsNorm(s.x.data() + t * hidden, w.ffnNorm.data(), s.normed.data() + t * hidden, hidden,
                    c.rmsEpsilon);
        }
        s.inputs.reset();
        const MatmulJob gateUp[] = {
            {&w.gate, &s.inputs.get(w.gate.type, s.normed.data(), n, hidden), s.gate.data(), ffn},
            {&w.up, &s.inputs.get(w.up.type, s.normed.data(), n, hidden), s.up.data(), ffn},
        };
        runMatmuls(gateUp);
        // Token by token: a vectorised loop over several tokens' values would compute some of them
        // in its scalar tail, and a token's result would depend on its batch.
        const auto activate = [&](std::int64_t begin, std::int64_t end) {
            for (std::int64_t t = begin; t < end; ++t) {
                if (c.gateActivation == GateActivation::geluTanh) {
                    geluGate(s.gate.data() + t * ffn, s.up.data() + t * ffn, ffn);
                } else {
                    swiGlu(s.gate.data() + t * ffn, s.up.data() + t * ffn, ffn);
                }
            }
        };
        if (n > 1) {
            pool_.parallelFor(n, activate);
        } else {
            activate(0, 1);
        }
        s.inputs.reset();
        const MatmulJob down[] = {
            {&w.down, &s.inputs.get(w.down.type, s.gate.data(), n, ffn), s.projected.data(), hidden},
        };
        runMatmuls(down);
        if (!w.postFeedForwardNorm.empty()) {
            normRows(s.projected.data(), w.postFeedForwardNorm, n, hidden, c.rmsEpsilon);
        }
        for (std::int64_t i = 0; i < n * hidden; ++i) {
            s.x[static_cast<std::size_t>(i)] += s.projected[static_cast<std::size_t>(i)];
        }
    }
    cache.append(n);

    if (!logits) {
        return;
    }
    const std::int64_t firstRow = allPositions ? 0 : n - 1;
    const std::int64_t rows = n - firstRow;
    for (std::int64_t t = firstRow; t < n; ++t) {
        rmsNorm(s.x.data() + t * hidden, model.outputNorm().data(), s.normed.data() + (t - firstRow) * hidden,
                hidden, c.rmsEpsilon);
    }
    s.inputs.reset();
    const MatmulJob head[] = {
        {&model.output(), &s.inputs.get(model.output().type, s.normed.data(), rows, hidden), logits,
         c.vocabularySize},
    };
    runMatmuls(head);
}

void Transformer::attention(KvCache& cache, std::int64_t layer, std::int64_t firstPosition,
                            std::int64_t count, std::int64_t window) {
    const ModelConfig& c = model_->config();
    Scratch& s = *scratch_;
    const std::int64_t group = c.headCount / c.kvHeadCount;
    const float scale = 1.0f / std::sqrt(static_cast<float>(c.headDim));
    const std::int64_t qWidth = c.queryWidth();
    const std::int64_t aWidth = c.headCount * c.valueDim;
    const std::int64_t blocks = (count + attentionTokenBlock - 1) / attentionTokenBlock;
    // One unit is one query head over a block of tokens: scores = K q, causal softmax, then
    // (V^T) p, both as float products with the keys and transposed values as weight rows.
    const auto unitOfWork = [&](std::int64_t unit) {
        thread_local std::vector<float> queries;
        thread_local std::vector<float> scores;
        thread_local ActivationBuffer queryInput;
        thread_local ActivationBuffer weightInput;
        const std::int64_t h = unit % c.headCount;
        const std::int64_t t0 = unit / c.headCount * attentionTokenBlock;
        const std::int64_t tokens = std::min(attentionTokenBlock, count - t0);
        const std::int64_t g = h / group;
        const std::int64_t positions = firstPosition + t0 + tokens; // seen by the block's last token

        queries.resize(static_cast<std::size_t>(tokens * c.headDim));
        for (std::int64_t t = 0; t < tokens; ++t) {
            std::copy_n(s.query.data() + (t0 + t) * qWidth + h * c.headDim, c.headDim,
                        queries.data() + t * c.headDim);
        }
        prepareActivations(GgmlType::F32, queries.data(), tokens, c.headDim, queryInput);
        const WeightMatrix keys{GgmlType::F32, cache.keys(layer, g), positions, c.headDim,
                                static_cast<std::size_t>(c.headDim) * sizeof(float)};
        scores.resize(static_cast<std::size_t>(tokens * positions));
        matmulRows(keys, queryInput, 0, positions, scores.data(), positions);

        for (std::int64_t t = 0; t < tokens; ++t) {
            float* row = scores.data() + t * positions;
            const std::int64_t visible = firstPosition + t0 + t + 1;
            const std::int64_t first = window > 0 ? std::max<std::int64_t>(0, visible - window) : 0;
            float highest = -INFINITY;
            for (std::int64_t p = first; p < visible; ++p) {
                row[p] *= scale;
                highest = std::max(highest, row[p]);
            }
            double total = 0.0;
            for (std::int64_t p = first; p < visible; ++p) {
                row[p] = std::exp(row[p] - highest);
                total += row[p];
            }
            const auto normaliser = static_cast<float>(1.0 / total);
            for (std::int64_t p = first; p < visible; ++p) {
                row[p] *= normaliser;
            }
            std::fill(row, row + first, 0.0f);               // beyond the sliding window
            std::fill(row + visible, row + positions, 0.0f); // later positions are masked
        }
        prepareActivations(GgmlType::F32, scores.data(), tokens, positions, weightInput);
        const WeightMatrix values{GgmlType::F32, cache.values(layer, g), c.valueDim, positions,
                                  static_cast<std::size_t>(cache.valueStride()) * sizeof(float)};
        matmulRows(values, weightInput, 0, c.valueDim, s.attention.data() + t0 * aWidth + h * c.valueDim,
                   aWidth);
    };
    // A short decoding step is cheaper on this thread than a hand-off to the workers and back.
    const std::int64_t work = c.headCount * count * (firstPosition + count) * c.headDim;
    if (work <= serialAttentionWork) {
        for (std::int64_t unit = 0; unit < c.headCount * blocks; ++unit) {
            unitOfWork(unit);
        }
    } else {
        forEachChunk(c.headCount * blocks, unitOfWork);
    }
}

} // namespace parlune::llm
