#pragma once

#include "llm/runtime/GenerationSession.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

namespace parlune {

// Key/value states of formatted instructions already prefilled, so a session opened with the
// same instructions (same mode and preferences) starts from them instead of recomputing.
// Least recently used entries go first once there are more than `maximumEntries` or their
// caches hold more than `maximumBytes`. Thread-safe: the worker fills it, memory pressure
// clears it from the main thread.
class InstructionPrefixCache {
public:
    using State = llm::GenerationSession::State;

    InstructionPrefixCache(std::size_t maximumEntries, std::size_t maximumBytes);

    // The state for exactly these tokens, or null; a hit becomes the most recent entry.
    std::shared_ptr<const State> find(const std::vector<std::int32_t>& tokens);
    // Keeps `state` (whose tokens are its key); a state larger than the byte cap is not kept.
    void insert(std::shared_ptr<const State> state);
    void clear();

    std::size_t size() const;
    std::size_t bytes() const;

private:
    static std::size_t bytesOf(const State& state);
    void evictOverflow();

    std::size_t maximumEntries_;
    std::size_t maximumBytes_;
    mutable std::mutex mutex_;
    std::list<std::shared_ptr<const State>> entries_; // most recent first
    std::size_t bytes_ = 0;
};

} // namespace parlune
