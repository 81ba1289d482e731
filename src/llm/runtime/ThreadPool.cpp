#include "llm/runtime/ThreadPool.h"

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
constexpr int kPiecesPerThread = 4;
thread_local const ThreadPool* tCurrentPool = nullptr;
} // namespace

ThreadPool::ThreadPool(int threadCount) {
    const int workers = std::max(threadCount, 1) - 1;
    workers_.reserve(static_cast<std::size_t>(workers));
    for (int i = 0; i < workers; ++i) workers_.emplace_back([this, i] { workerLoop(i + 1); });
}

ThreadPool::~ThreadPool() {
    stopping_.store(true);
    generation_.fetch_add(1);
    generation_.notify_all();
    for (std::thread& worker : workers_) worker.join();
}

void ThreadPool::runShare(int) noexcept {
    // Pieces are claimed one at a time, so a thread the system preempted (other programs share
    // these cores) leaves its remaining pieces to the others instead of stalling the call.
    const ThreadPool* outer = tCurrentPool;
    tCurrentPool = this;
    for (;;) {
        const std::int64_t piece = nextPiece_.fetch_add(1, std::memory_order_relaxed);
        if (piece >= jobPieces_) break;
        const std::int64_t begin = jobCount_ * piece / jobPieces_;
        const std::int64_t end = jobCount_ * (piece + 1) / jobPieces_;
        try {
            (*job_)(begin, end);
        } catch (...) {
            const std::lock_guard lock(errorMutex_);
            if (!error_) error_ = std::current_exception();
        }
    }
    tCurrentPool = outer;
}

void ThreadPool::workerLoop(int index) {
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
            if (now == seen) generation_.wait(seen);
            sleepingWorkers_.fetch_sub(1);
            now = generation_.load(std::memory_order_acquire);
        }
        seen = now;
        if (stopping_.load()) return;
        runShare(index);
        if (pending_.fetch_sub(1) == 1 && callerSleeping_.load()) pending_.notify_one();
    }
}

void ThreadPool::waitForWorkers() {
    std::uint32_t left = pending_.load(std::memory_order_acquire);
    for (int i = 0; i < kSpinIterations && left != 0; ++i) {
        PARLUNE_CPU_RELAX();
        left = pending_.load(std::memory_order_acquire);
    }
    while (left != 0) {
        callerSleeping_.store(true);
        left = pending_.load();
        if (left != 0) pending_.wait(left);
        callerSleeping_.store(false);
        left = pending_.load(std::memory_order_acquire);
    }
}

void ThreadPool::parallelFor(std::int64_t count, const RangeFunction& fn) {
    if (count <= 0) return;
    if (workers_.empty() || count == 1 || tCurrentPool == this) {
        fn(0, count); // nested or trivially small: no hand-off
        return;
    }
    const std::lock_guard call(callMutex_);
    job_ = &fn;
    jobCount_ = count;
    jobPieces_ = std::min<std::int64_t>(count, std::int64_t{threadCount()} * kPiecesPerThread);
    nextPiece_.store(0, std::memory_order_relaxed);
    error_ = nullptr;
    pending_.store(static_cast<std::uint32_t>(workers_.size()));
    generation_.fetch_add(1);
    if (sleepingWorkers_.load() > 0) generation_.notify_all();
    runShare(0);
    waitForWorkers();
    job_ = nullptr;
    if (error_) std::rethrow_exception(std::exchange(error_, nullptr));
}

} // namespace parlune::llm
