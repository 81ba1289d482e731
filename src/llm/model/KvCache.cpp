#include "llm/model/KvCache.h"

#include "llm/model/ModelConfig.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace parlune::llm {

namespace {

// One row of keys and one of values per layer and key/value head; refused before anything is
// allocated when the dimensions are not positive or their product does not fit.
std::size_t headSlots(std::int64_t layerCount, std::int64_t kvHeadCount, std::int64_t headDim,
                      std::int64_t maxPositions) {
    std::int64_t slots = 0;
    if (layerCount <= 0 || kvHeadCount <= 0 || headDim <= 0 || maxPositions <= 0) {
        throw std::invalid_argument("KvCache needs positive dimensions");
    }
    if (__builtin_mul_overflow(layerCount, kvHeadCount, &slots)) {
        throw std::invalid_argument("KvCache dimensions overflow");
    }
    return static_cast<std::size_t>(slots);
}

} // namespace

KvCache::KvCache(std::int64_t layerCount, std::int64_t kvHeadCount, std::int64_t headDim,
                 std::int64_t maxPositions)
    : layerCount_(layerCount), kvHeadCount_(kvHeadCount), headDim_(headDim), maxPositions_(maxPositions),
      keys_(headSlots(layerCount, kvHeadCount, headDim, maxPositions)), values_(keys_.size()) {}

KvCache::KvCache(const ModelConfig& config)
    : KvCache(config.layerCount, config.kvHeadCount, config.headDim, config.contextLength) {}

void KvCache::reserve(std::int64_t positions) {
    if (positions > maxPositions_) {
        throw std::length_error("the context of " + std::to_string(maxPositions_) + " tokens is full (" +
                                std::to_string(positions) + " needed)");
    }
    if (positions <= capacity_) {
        return;
    }
    const std::int64_t chunks = (positions + growthChunk - 1) / growthChunk;
    const std::int64_t newCapacity = std::min(maxPositions_, chunks * growthChunk);
    const auto size = static_cast<std::size_t>(newCapacity * headDim_);
    for (std::size_t i = 0; i < keys_.size(); ++i) {
        keys_[i].resize(size);
        // Transposed values move to the wider row stride.
        std::vector<float> widened(size);
        for (std::int64_t d = 0; d < headDim_ && capacity_ > 0; ++d) {
            std::copy_n(values_[i].data() + d * capacity_, length_, widened.data() + d * newCapacity);
        }
        values_[i] = std::move(widened);
    }
    capacity_ = newCapacity;
}

void KvCache::append(std::int64_t count) {
    if (count < 0 || length_ + count > capacity_) {
        throw std::logic_error("KvCache::append past the reserved capacity");
    }
    length_ += count;
}

void KvCache::truncate(std::int64_t length) {
    if (length < 0 || length > length_) {
        throw std::out_of_range("KvCache::truncate to " + std::to_string(length) + " of " +
                                std::to_string(length_));
    }
    length_ = length;
}

std::size_t KvCache::allocatedBytes() const {
    return 2 * keys_.size() * static_cast<std::size_t>(capacity_ * headDim_) * sizeof(float);
}

} // namespace parlune::llm
