#include "llm/gguf/MappingGuard.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>

namespace parlune::llm {

namespace {

// Everything the handlers touch is a lock-free atomic in static storage.
struct Slot {
    std::atomic<bool> taken{false};
    std::atomic<std::uintptr_t> begin{0}; // 0: not watching
    std::atomic<std::uintptr_t> end{0};
    std::atomic<int> fd{-1};
    std::atomic<bool> changed{false};
};

Slot slots[MappingGuard::capacity];
// Handlers running now: a guard going away waits for them, so none touches its range after.
std::atomic<int> handlersRunning{0};
struct sigaction previousBusAction {};
std::once_flag handlersInstalled;

int leaseSignal() {
    return SIGRTMIN + 6;
}

// Async-signal-safe: replaces the range's pages with zero pages and lets a waiting writer go.
void invalidate(Slot& slot, std::uintptr_t begin) {
    slot.changed.store(true);
    const std::uintptr_t end = slot.end.load();
    ::mmap(reinterpret_cast<void*>(begin), end - begin, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED,
           -1, 0);
    const int fd = slot.fd.load();
    if (fd >= 0) {
        ::fcntl(fd, F_SETLEASE, F_UNLCK);
    }
}

void passOnBusError(int signal, siginfo_t* info, void* context) {
    if ((previousBusAction.sa_flags & SA_SIGINFO) != 0 && previousBusAction.sa_sigaction != nullptr) {
        previousBusAction.sa_sigaction(signal, info, context);
        return;
    }
    if (previousBusAction.sa_handler != SIG_DFL && previousBusAction.sa_handler != SIG_IGN &&
        previousBusAction.sa_handler != nullptr) {
        previousBusAction.sa_handler(signal);
        return;
    }
    // Not ours: the default action, taken when the faulting access runs again.
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    ::sigaction(SIGBUS, &fallback, nullptr);
}

class HandlerScope {
public:
    HandlerScope() : savedErrno_(errno) { handlersRunning.fetch_add(1); }
    ~HandlerScope() {
        handlersRunning.fetch_sub(1);
        errno = savedErrno_;
    }
    HandlerScope(const HandlerScope&) = delete;
    HandlerScope& operator=(const HandlerScope&) = delete;

private:
    int savedErrno_;
};

void onBusError(int signal, siginfo_t* info, void* context) {
    const HandlerScope scope;
    const auto address = reinterpret_cast<std::uintptr_t>(info->si_addr);
    for (Slot& slot : slots) {
        const std::uintptr_t begin = slot.begin.load();
        if (begin != 0 && address >= begin && address < slot.end.load()) {
            invalidate(slot, begin);
            return; // the access runs again and reads zeros
        }
    }
    passOnBusError(signal, info, context);
}

void onLeaseBreak(int, siginfo_t* info, void*) {
    const HandlerScope scope;
    for (Slot& slot : slots) {
        const std::uintptr_t begin = slot.begin.load();
        if (begin != 0 && slot.fd.load() == info->si_fd) {
            invalidate(slot, begin);
        }
    }
}

void installHandlers() {
    struct sigaction action {};
    action.sa_sigaction = onBusError;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&action.sa_mask);
    ::sigaction(SIGBUS, &action, &previousBusAction);

    struct sigaction lease {};
    lease.sa_sigaction = onLeaseBreak;
    lease.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&lease.sa_mask);
    ::sigaction(leaseSignal(), &lease, nullptr);
}

} // namespace

MappingGuard::MappingGuard(const std::byte* data, std::size_t size, int fd) {
    if (data == nullptr || size == 0) {
        return;
    }
    std::call_once(handlersInstalled, installHandlers);
    for (int i = 0; i < capacity; ++i) {
        bool expected = false;
        if (slots[i].taken.compare_exchange_strong(expected, true)) {
            slot_ = i;
            break;
        }
    }
    if (slot_ < 0) {
        return;
    }
    Slot& slot = slots[slot_];
    slot.changed.store(false);
    slot.fd.store(fd);
    slot.end.store(reinterpret_cast<std::uintptr_t>(data) + size);
    slot.begin.store(reinterpret_cast<std::uintptr_t>(data));
    // Only the file's owner gets a lease, and not while anyone has it open for writing.
    leased_ = ::fcntl(fd, F_SETSIG, leaseSignal()) == 0 && ::fcntl(fd, F_SETLEASE, F_RDLCK) == 0;
}

MappingGuard::~MappingGuard() {
    if (slot_ < 0) {
        return;
    }
    Slot& slot = slots[slot_];
    slot.begin.store(0);
    while (handlersRunning.load() != 0) {
        // A handler that saw the range before it was withdrawn finishes in microseconds.
    }
    const int fd = slot.fd.exchange(-1);
    if (leased_) {
        ::fcntl(fd, F_SETLEASE, F_UNLCK);
    }
    slot.taken.store(false);
}

bool MappingGuard::changed() const {
    return slot_ >= 0 && slots[slot_].changed.load();
}

} // namespace parlune::llm
