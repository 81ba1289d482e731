#include "llm/parallel/ThreadPool.h"

#include <algorithm>
#include <utility>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#define PARLUNE_CPU_RELAX() _mm_pause()
#else
#define PARLUNE_CPU_RELAX() std::this_thread::yield()
#endif

namespace parlune::llm {

namespace {
// About 30-60 microseconds of polling before a thread sleeps.
constexpr int kSpinIterations = 1500;
constexpr std::int64_t kPiecesPerThread = 4;
constexpr std::int64_t kMaxPieces = 0xFFFF;
thread_local const ThreadPool* tCurrentPool = nullptr;

std::uint64_t packClaims(std::uint32_t generation, std::uint64_t next, std::uint64_t pieces) {
    return (static_cast<std::uint64_t>(generation) << 32) | (next << 16) | pieces;
}
} // namespace

ThreadPool::ThreadPool(int threadCount) {
    const int workers = std::max(threadCount, 1) - 1;
    workers_.reserve(static_cast<std::size_t>(workers));
    for (int i = 0; i < workers; ++i)
        workers_.emplace_back([this] { workerLoop(); });
}

ThreadPool::~ThreadPool() {
    stopping_.store(true);
    generation_.fetch_add(1);
    generation_.notify_all();
    for (std::thread& worker : workers_)
        worker.join();
}

// Claims and runs pieces of job `generation` until none are left. A claim succeeds only while
// that job is current, so a late thread never runs a piece of a newer job with an older
// function, and the job's function and count, read before the claim, are still its own.
void ThreadPool::runPieces(std::uint32_t generation) noexcept {
    const ThreadPool* outer = tCurrentPool;
    tCurrentPool = this;
    std::uint64_t claims = claims_.load(std::memory_order_acquire);
    for (;;) {
        const std::uint64_t next = (claims >> 16) & 0xFFFF;
        const std::uint64_t pieces = claims & 0xFFFF;
        if ((claims >> 32) != generation || next >= pieces)
            break;
        const RangeFunction* fn = job_.load(std::memory_order_relaxed);
        const std::int64_t count = jobCount_.load(std::memory_order_relaxed);
        if (!claims_.compare_exchange_weak(claims, claims + (1u << 16), std::memory_order_acq_rel,
                                           std::memory_order_acquire)) {
            continue; // `claims` now holds the current value
        }
        const auto piece = static_cast<std::int64_t>(next);
        const auto total = static_cast<std::int64_t>(pieces);
        try {
            (*fn)(count * piece / total, count * (piece + 1) / total);
        } catch (...) {
            const std::lock_guard lock(errorMutex_);
            if (!error_)
                error_ = std::current_exception();
        }
        // Sequentially consistent, like the caller's flag and check in waitForPieces.
        if (donePieces_.fetch_add(1) + 1 == pieces && callerSleeping_.load()) {
            donePieces_.notify_one();
        }
        claims = claims_.load(std::memory_order_acquire);
    }
    tCurrentPool = outer;
}

void ThreadPool::workerLoop() {
    std::uint32_t seen = 0;
    for (;;) {
        std::uint32_t now = generation_.load(std::memory_order_acquire);
        for (int i = 0; i < kSpinIterations && now == seen; ++i) {
            PARLUNE_CPU_RELAX();
            now = generation_.load(std::memory_order_acquire);
        }
        while (now == seen) {
            sleepingWorkers_.fetch_add(1);
            now = generation_.load();
            if (now == seen)
                generation_.wait(seen);
            sleepingWorkers_.fetch_sub(1);
            now = generation_.load(std::memory_order_acquire);
        }
        seen = now;
        if (stopping_.load())
            return;
        runPieces(seen);
    }
}

void ThreadPool::waitForPieces(std::uint32_t pieces) {
    std::uint32_t done = donePieces_.load(std::memory_order_acquire);
    for (int i = 0; i < kSpinIterations && done != pieces; ++i) {
        PARLUNE_CPU_RELAX();
        done = donePieces_.load(std::memory_order_acquire);
    }
    while (done != pieces) {
        callerSleeping_.store(true);
        done = donePieces_.load();
        if (done != pieces)
            donePieces_.wait(done);
        callerSleeping_.store(false);
        done = donePieces_.load(std::memory_order_acquire);
    }
}

void ThreadPool::parallelFor(std::int64_t count, const RangeFunction& fn) {
    if (count <= 0)
        return;
    if (workers_.empty() || count == 1 || tCurrentPool == this) {
        fn(0, count); // nested or trivially small: no hand-off
        return;
    }
    const std::lock_guard call(callMutex_);
    const std::int64_t pieces = std::min({count, std::int64_t{threadCount()} * kPiecesPerThread, kMaxPieces});
    const std::uint32_t generation = ++lastGeneration_;
    job_.store(&fn, std::memory_order_relaxed);
    jobCount_.store(count, std::memory_order_relaxed);
    donePieces_.store(0, std::memory_order_relaxed);
    error_ = nullptr;
    claims_.store(packClaims(generation, 0, static_cast<std::uint64_t>(pieces)), std::memory_order_release);
    generation_.store(generation);
    if (sleepingWorkers_.load() > 0)
        generation_.notify_all();
    runPieces(generation);
    waitForPieces(static_cast<std::uint32_t>(pieces));
    if (error_)
        std::rethrow_exception(std::exchange(error_, nullptr));
}

} // namespace parlune::llm
