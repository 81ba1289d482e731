#pragma once

#include "llm/model/ModelIdentity.h"
#include "llm/runtime/GenerationSession.h"

#include <cstddef>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <vector>

namespace parlune {

// Key/value states of formatted instructions already prefilled, so a session opened with the
// same instructions (same mode and preferences) on the same model starts from them instead of
// recomputing. An entry is found only by the identity of the model that computed it (file and
// header hash, see llm::ModelIdentity) together with its exact tokens.
//
// Switching models calls `reset`, which empties the cache and hands out a new ticket; inserts
// carry the ticket of the backend that computed them, so a job still queued for the old model
// cannot add its state afterwards.
//
// Least recently used entries go first once there are more than `maximumEntries` or their
// caches hold more than `maximumBytes`. Thread-safe: the worker fills it, memory pressure
// clears it from the main thread.
class InstructionPrefixCache {
public:
    using State = llm::GenerationSession::State;
    using Ticket = std::uint64_t;

    InstructionPrefixCache(std::size_t maximumEntries, std::size_t maximumBytes);

    // Forgets every entry and invalidates earlier tickets; returns the one to insert with now.
    Ticket reset();
    Ticket ticket() const;

    // The state `model` computed for exactly these tokens, or null; a hit becomes the most
    // recent entry.
    std::shared_ptr<const State> find(const llm::ModelIdentity& model,
                                      const std::vector<std::int32_t>& tokens);
    // Keeps `state` (keyed by its model and tokens) unless `ticket` is stale or the state is
    // larger than the byte cap.
    void insert(Ticket ticket, std::shared_ptr<const State> state);
    // Drops the entries (memory pressure); tickets stay valid.
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
    Ticket ticket_ = 0;
};

} // namespace parlune
