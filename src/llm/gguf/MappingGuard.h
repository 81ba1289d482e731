#pragma once

#include <cstddef>

namespace parlune::llm {

// Keeps a memory-mapped file from taking the process down when the file changes underneath it.
// While a guard lives, two process-wide signal handlers watch its range: a lease-break notice
// (someone is about to open the file for writing or truncate it; the writer waits until the
// lease is released) and SIGBUS inside the range (its pages vanished without notice, e.g. on a
// file we may not lease). Either one marks the range changed, puts zero pages in its place, so
// every later read of the range succeeds, and releases the lease so the writer goes on at once.
// Whoever reads the range checks changed() afterwards and discards what it computed meanwhile.
// A SIGBUS outside every guarded range goes on to the handler that was installed before.
class MappingGuard {
public:
    // How many mappings can be guarded at once; past that, a mapping is unguarded.
    static constexpr int capacity = 64;

    // `fd` is the read-only descriptor the range was mapped from; it must outlive the guard.
    MappingGuard(const std::byte* data, std::size_t size, int fd);
    ~MappingGuard();
    MappingGuard(const MappingGuard&) = delete;
    MappingGuard& operator=(const MappingGuard&) = delete;

    // Whether the system granted a read lease, so a writer is held back until we let go.
    bool leased() const { return leased_; }
    bool guarded() const { return slot_ >= 0; }
    // A lease-break notice or a fault in the range arrived; stays true.
    bool changed() const;

private:
    int slot_ = -1;
    bool leased_ = false;
};

} // namespace parlune::llm
