#include "inference/InstructionPrefixCache.h"

#include <algorithm>

namespace parlune {

InstructionPrefixCache::InstructionPrefixCache(std::size_t maximumEntries, std::size_t maximumBytes)
    : maximumEntries_(maximumEntries), maximumBytes_(maximumBytes) {}

std::size_t InstructionPrefixCache::bytesOf(const State& state) {
    return state.cache.allocatedBytes() + state.tokens.size() * sizeof(std::int32_t) +
           state.logits.size() * sizeof(float);
}

InstructionPrefixCache::Ticket InstructionPrefixCache::reset() {
    std::lock_guard lock(mutex_);
    entries_.clear();
    bytes_ = 0;
    return ++ticket_;
}

InstructionPrefixCache::Ticket InstructionPrefixCache::ticket() const {
    std::lock_guard lock(mutex_);
    return ticket_;
}

std::shared_ptr<const InstructionPrefixCache::State>
InstructionPrefixCache::find(const llm::ModelIdentity& model, const std::vector<std::int32_t>& tokens) {
    std::lock_guard lock(mutex_);
    const auto found = std::find_if(entries_.begin(), entries_.end(), [&](const auto& entry) {
        return entry->model == model && entry->tokens == tokens;
    });
    if (found == entries_.end()) {
        return nullptr;
    }
    entries_.splice(entries_.begin(), entries_, found);
    return entries_.front();
}

void InstructionPrefixCache::insert(Ticket ticket, std::shared_ptr<const State> state) {
    if (!state || bytesOf(*state) > maximumBytes_ || maximumEntries_ == 0) {
        return;
    }
    std::lock_guard lock(mutex_);
    if (ticket != ticket_) {
        return; // computed by a model that has been switched away from
    }
    const auto same = std::find_if(entries_.begin(), entries_.end(), [&](const auto& entry) {
        return entry->model == state->model && entry->tokens == state->tokens;
    });
    if (same != entries_.end()) {
        bytes_ -= bytesOf(**same);
        entries_.erase(same);
    }
    bytes_ += bytesOf(*state);
    entries_.push_front(std::move(state));
    evictOverflow();
}

void InstructionPrefixCache::evictOverflow() {
    while (entries_.size() > maximumEntries_ || bytes_ > maximumBytes_) {
        bytes_ -= bytesOf(*entries_.back());
        entries_.pop_back();
    }
}

void InstructionPrefixCache::clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
    bytes_ = 0;
}

std::size_t InstructionPrefixCache::size() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

std::size_t InstructionPrefixCache::bytes() const {
    std::lock_guard lock(mutex_);
    return bytes_;
}

} // namespace parlune
