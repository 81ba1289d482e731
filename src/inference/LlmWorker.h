#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace parlune {

// One thread that runs inference jobs in the order they were posted, so the main thread never
// blocks on the model. Destruction waits for the running job and drops the queued ones.
class LlmWorker {
public:
    LlmWorker();
    ~LlmWorker();
    LlmWorker(const LlmWorker&) = delete;
    LlmWorker& operator=(const LlmWorker&) = delete;

    void post(std::function<void()> job);

private:
    void run();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> jobs_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace parlune
