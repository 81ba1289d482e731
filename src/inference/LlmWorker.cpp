#include "inference/LlmWorker.h"

namespace parlune {

LlmWorker::LlmWorker() : thread_([this] { run(); }) {}

LlmWorker::~LlmWorker() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        jobs_.clear();
    }
    wake_.notify_one();
    thread_.join();
}

void LlmWorker::post(std::function<void()> job) {
    {
        std::lock_guard lock(mutex_);
        jobs_.push_back(std::move(job));
    }
    wake_.notify_one();
}

void LlmWorker::run() {
    for (;;) {
        std::function<void()> job;
        {
            std::unique_lock lock(mutex_);
            wake_.wait(lock, [this] { return stopping_ || !jobs_.empty(); });
            if (stopping_) {
                return;
            }
            job = std::move(jobs_.front());
            jobs_.pop_front();
        }
        job(); // jobs report their own errors
    }
}

} // namespace parlune
