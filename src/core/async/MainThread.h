#pragma once

#include <coroutine>
#include <functional>

namespace parlune {

// Runs `work` on the main thread's event loop, after everything already queued there. Safe to call
// from any thread; requires a QCoreApplication.
void postToMainThread(std::function<void()> work);

// `co_await yieldToEventLoop()` lets the event loop run once before the coroutine continues.
struct YieldToEventLoop {
    bool await_ready() const noexcept { return false; }
    void await_suspend(std::coroutine_handle<> handle) const {
        postToMainThread([handle] { handle.resume(); });
    }
    void await_resume() const noexcept {}
};

inline YieldToEventLoop yieldToEventLoop() {
    return {};
}

} // namespace parlune
