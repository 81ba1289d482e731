#pragma once

#include <functional>

namespace parlune {

enum class MemoryPressureLevel { warning, critical };

// Reports when the system runs short of memory. Events are delivered on the main thread.
class MemoryPressureSource {
public:
    virtual ~MemoryPressureSource() = default;
    // Starts delivering warning and critical events to `handler`; replaces an earlier handler.
    virtual void start(std::function<void(MemoryPressureLevel)> handler) = 0;
    // Stops delivering; no call of the handler follows.
    virtual void cancel() = 0;
};

} // namespace parlune
