#pragma once

#include <filesystem>
#include <optional>
#include <span>
#include <vector>

namespace parlune::llm {

// How many threads the engine runs by default: one per physical core this process may use. Two
// hardware threads of one core share its vector units, and matrix products keep those busy, so a
// second thread per core only adds hand-offs. A CPU quota of the process's cgroup (v2 `cpu.max`,
// or v1 `cpu.cfs_quota_us` over `cpu.cfs_period_us`) lowers the count further: more threads than
// the quota grants would be preempted mid-product.
class PhysicalCores {
public:
    // Distinct (package, core) pairs among `cpus`, read from `cpuRoot`/cpuN/topology (as under
    // /sys/devices/system/cpu). A CPU whose topology cannot be read counts as a core of its own.
    static int countAmong(const std::filesystem::path& cpuRoot, std::span<const int> cpus);

    // Whole CPUs a cgroup v2 `cpu.max` file ("QUOTA PERIOD", or "max PERIOD" for none) allows,
    // rounded up; nullopt without a limit or a readable file.
    static std::optional<int> quotaLimit(const std::filesystem::path& cpuMaxFile);
    // The same from a cgroup v1 CPU controller folder (`cpu.cfs_quota_us`, -1 for none, and
    // `cpu.cfs_period_us`).
    static std::optional<int> quotaLimitV1(const std::filesystem::path& cpuControllerFolder);

    // The CPUs this process may run on (its affinity mask); empty when it cannot be read.
    static std::vector<int> allowedCpus();

    // The default thread count on this machine: physical cores among the allowed CPUs, within the
    // quota of this process's cgroup, at least one.
    static int defaultThreadCount();
};

} // namespace parlune::llm
