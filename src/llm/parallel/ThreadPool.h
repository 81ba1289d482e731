#pragma once

#include <atomic>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace parlune::llm {

// Persistent workers for the engine's data-parallel loops. A call cuts [0, count) into a few
// contiguous pieces per thread, which the workers and the calling thread claim in turn; the call
// returns as soon as every piece is done, without waiting for workers that found nothing left
// (on a busy machine a worker may be woken late). Workers spin briefly after a job (the next one
// usually follows within microseconds while generating) and then sleep on a futex. Nothing is
// allocated per call.
//
// A parallelFor issued from inside a running job runs inline on the calling thread; calls from
// several outside threads are served one after another. An exception thrown by `fn` in any piece
// is rethrown to the caller once every piece has finished.
class ThreadPool {
public:
    using RangeFunction = std::function<void(std::int64_t begin, std::int64_t end)>;

    // threadCount includes the calling thread; values below 1 mean 1.
    explicit ThreadPool(int threadCount);
    ~ThreadPool();
    ThreadPool(const ThreadPool&) = delete;
    ThreadPool& operator=(const ThreadPool&) = delete;

    int threadCount() const { return static_cast<int>(workers_.size()) + 1; }
    // Jobs handed to the workers so far (calls run inline are not counted): benchmarks weigh
    // the hand-off cost per job with it.
    std::uint32_t handOffs() const { return generation_.load(std::memory_order_relaxed); }

    void parallelFor(std::int64_t count, const RangeFunction& fn);

private:
    void workerLoop();
    void runPieces(std::uint32_t generation) noexcept;
    void waitForPieces(std::uint32_t pieces);

    std::vector<std::thread> workers_;
    std::mutex callMutex_;
    std::uint32_t lastGeneration_ = 0; // guarded by callMutex_
    // Wakes workers: the generation of the latest job.
    std::atomic<std::uint32_t> generation_{0};
    // Claims: generation (high 32 bits), next piece (bits 16-31), piece count (low 16 bits).
    std::atomic<std::uint64_t> claims_{0};
    std::atomic<std::uint32_t> donePieces_{0};
    std::atomic<const RangeFunction*> job_{nullptr};
    std::atomic<std::int64_t> jobCount_{0};
    std::atomic<int> sleepingWorkers_{0};
    std::atomic<bool> callerSleeping_{false};
    std::atomic<bool> stopping_{false};
    std::mutex errorMutex_;
    std::exception_ptr error_;
};

} // namespace parlune::llm
