#pragma once

#include <cstdint>
#include <vector>

namespace parlune::llm {

struct ModelConfig;

// Keys and values of every layer for the positions processed so far, in F32. Storage grows in
// chunks as positions are added (never the whole context up front). Copying a cache snapshots
// it; truncating forgets the positions after a prefix, so a later prompt can continue from a
// shared prefix.
class KvCache {
public:
    static constexpr std::int64_t growthChunk = 256;

    KvCache(std::int64_t layerCount, std::int64_t kvHeadCount, std::int64_t headDim,
            std::int64_t maxPositions);
    explicit KvCache(const ModelConfig& config);

    std::int64_t length() const { return length_; }
    std::int64_t capacity() const { return capacity_; }
    std::int64_t maxPositions() const { return maxPositions_; }
    std::int64_t headDim() const { return headDim_; }

    // Makes room for `positions` in total; throws std::length_error past maxPositions.
    void reserve(std::int64_t positions);
    // Marks `count` more positions as filled (after their keys/values were written).
    void append(std::int64_t count);
    void truncate(std::int64_t length);
    void clear() { truncate(0); }

    // Keys of one layer and key/value head: a row of headDim floats per position.
    float* keys(std::int64_t layer, std::int64_t head) { return keys_[index(layer, head)].data(); }
    const float* keys(std::int64_t layer, std::int64_t head) const {
        return keys_[index(layer, head)].data();
    }
    // Values transposed: a row of capacity() floats per value dimension, so attention weights
    // times values is a product with contiguous rows, like keys times queries.
    float* values(std::int64_t layer, std::int64_t head) { return values_[index(layer, head)].data(); }
    const float* values(std::int64_t layer, std::int64_t head) const {
        return values_[index(layer, head)].data();
    }
    std::int64_t valueStride() const { return capacity_; }

    std::size_t allocatedBytes() const;

private:
    std::size_t index(std::int64_t layer, std::int64_t head) const {
        return static_cast<std::size_t>(layer * kvHeadCount_ + head);
    }

    std::int64_t layerCount_;
    std::int64_t kvHeadCount_;
    std::int64_t headDim_;
    std::int64_t maxPositions_;
    std::int64_t capacity_ = 0;
    std::int64_t length_ = 0;
    std::vector<std::vector<float>> keys_;
    std::vector<std::vector<float>> values_;
};

} // namespace parlune::llm
