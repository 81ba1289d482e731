#pragma once

#include "core/async/Continuation.h"
#include "core/async/MainThread.h"
#include "core/platform/LanguageModelFramework.h"
#include "core/platform/MemoryPressureSource.h"
#include "inference/InstructionPrefixCache.h"
#include "inference/LlmBackend.h"
#include "inference/LlmWorker.h"
#include "inference/ModelLocator.h"

#include <QCoro/QCoroTask>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace parlune {

// What the framework and its sessions share: the chosen model file, the backend loaded from
// it, the instruction cache and the inference worker. Main thread only, except the backend,
// which only the worker touches.
class LlmInference {
public:
    using Locate = std::function<std::optional<ModelFileReport>()>;

    struct Options {
        Locate locate;
        int threadCount = 0; // 0: one per physical core this process may use
        std::size_t prefixCacheEntries = 4;
        std::size_t prefixCacheBytes = std::size_t(256) << 20;
        // Benchmarks only: free-text responses allowed at least this many tokens are exactly this
        // long, end tokens ignored.
        std::optional<std::int64_t> forcedResponseTokens;
        // Guesses of the next tokens from the prompt, checked in one model run (same answers).
        bool draftFromPrompt = true;
        // When set, memory pressure drops the instruction cache. Must outlive the framework.
        MemoryPressureSource* memoryPressure = nullptr;
    };

    explicit LlmInference(Options options);
    MemoryPressureSource* memoryPressure() const { return options_.memoryPressure; }

    // The file the model comes from now, looked up again after a short while so that a new
    // setting or a newly installed file is noticed. None: no candidate at all.
    const std::optional<ModelFileReport>& chosenModel();

    // Looks for the model file again at the next request (the user chose another one).
    void reconsiderModel() { chosenAt_.reset(); }

    // Drops the prefilled instructions (memory pressure); the model stays loaded.
    void releaseCaches() { prefixCache_->clear(); }
    InstructionPrefixCache& prefixCache() { return *prefixCache_; }

    template <typename T> using Work = std::function<T(LlmBackend&, const std::atomic<bool>& stop)>;

    // Runs `work` on the worker with the current backend and resumes on the main thread with
    // its result or error. A stop request on `token` raises the flag the work checks between
    // tokens and ends the wait at once with CancellationError.
    template <typename T> QCoro::Task<T> run(Work<T> work, std::stop_token token) {
        Continuation<T> done;
        auto stop = std::make_shared<std::atomic<bool>>(token.stop_requested() || isStopping());
        track(stop);
        dispatch<T>(std::move(work), stop, done);
        std::stop_callback raiseFlag(token, RaiseFlag{stop});
        co_return co_await done.wait(token);
    }

    // Timings of the last finished response of any session (benchmarks, the command line).
    const std::optional<LlmResponse>& lastResponse() const { return lastResponse_; }
    void recordResponse(const LlmResponse& response) { lastResponse_ = response; }

    // Queues work whose outcome nobody waits for (prewarming). The flag rises with stopAllWork().
    void post(std::function<void(LlmBackend&, const std::atomic<bool>& stop)> work);

    // Raises the stop flag of every request in flight and of every later one, so that shutting
    // down waits for one token at most, never for a whole answer.
    void stopAllWork();
    bool isStopping() const { return stopping_->load(std::memory_order_relaxed); }

private:
    struct RaiseFlag {
        std::shared_ptr<std::atomic<bool>> flag;
        void operator()() const { flag->store(true, std::memory_order_relaxed); }
    };

    // Kept out of the coroutine on purpose: GCC 12 mishandles lambda captures moved from a
    // coroutine's own parameters (they end up destroyed twice).
    template <typename T>
    void dispatch(Work<T> work, std::shared_ptr<std::atomic<bool>> stop, Continuation<T> done) {
        std::shared_ptr<LlmBackend> backend = currentBackend();
        worker_->post([backend, stop, done, work = std::move(work)]() mutable {
            try {
                T value = work(*backend, *stop);
                postToMainThread(
                    [done, value = std::move(value)]() mutable { done.resume(std::move(value)); });
            } catch (...) {
                postToMainThread(
                    [done, error = std::current_exception()]() mutable { done.resumeThrowing(error); });
            }
        });
    }

    void track(const std::shared_ptr<std::atomic<bool>>& stop);

    // Throws LanguageModelGenerationError assetsUnavailable when no usable file is chosen.
    std::shared_ptr<LlmBackend> currentBackend();

    Options options_;
    std::optional<ModelFileReport> chosen_;
    std::optional<std::chrono::steady_clock::time_point> chosenAt_;
    std::shared_ptr<InstructionPrefixCache> prefixCache_;
    std::shared_ptr<LlmBackend> backend_;
    std::optional<LlmResponse> lastResponse_;
    std::shared_ptr<std::atomic<bool>> stopping_ = std::make_shared<std::atomic<bool>>(false);
    std::vector<std::weak_ptr<std::atomic<bool>>> inFlightStops_;
    // Declared last: destroyed first, so no job outlives what it uses.
    std::unique_ptr<LlmWorker> worker_;
};

} // namespace parlune
