#include "llm/parallel/PhysicalCores.h"

#include <sched.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <utility>

namespace parlune::llm {

namespace {

std::optional<long long> readNumber(const std::filesystem::path& file) {
    std::ifstream in(file);
    long long value = 0;
    if (!(in >> value))
        return std::nullopt;
    return value;
}

std::optional<int> wholeCpus(long long quota, long long period) {
    if (quota <= 0 || period <= 0)
        return std::nullopt;
    return static_cast<int>(
        std::max(1.0, std::ceil(static_cast<double>(quota) / static_cast<double>(period))));
}

// The quota of this process's cgroup, from /proc/self/cgroup: "0::/path" (v2) or
// "N:cpu,cpuacct:/path" (v1, mounted under /sys/fs/cgroup/<controllers>).
std::optional<int> ownQuota() {
    const std::filesystem::path root = "/sys/fs/cgroup";
    std::ifstream in("/proc/self/cgroup");
    std::string line;
    while (std::getline(in, line)) {
        const std::size_t first = line.find(':');
        const std::size_t second = first == std::string::npos ? first : line.find(':', first + 1);
        if (second == std::string::npos)
            continue;
        const std::string controllers = line.substr(first + 1, second - first - 1);
        const std::filesystem::path path = std::filesystem::path(line.substr(second + 1)).relative_path();
        std::optional<int> quota;
        if (controllers.empty()) {
            quota = PhysicalCores::quotaLimit(root / path / "cpu.max");
        } else if (("," + controllers + ",").find(",cpu,") != std::string::npos) {
            quota = PhysicalCores::quotaLimitV1(root / controllers / path);
        }
        if (quota)
            return quota;
    }
    return std::nullopt;
}

} // namespace

int PhysicalCores::countAmong(const std::filesystem::path& cpuRoot, std::span<const int> cpus) {
    std::set<std::pair<long long, long long>> cores;
    int unknown = 0;
    for (const int cpu : cpus) {
        const std::filesystem::path topology = cpuRoot / ("cpu" + std::to_string(cpu)) / "topology";
        const std::optional<long long> core = readNumber(topology / "core_id");
        const std::optional<long long> package = readNumber(topology / "physical_package_id");
        if (core && package) {
            cores.emplace(*package, *core);
        } else {
            ++unknown;
        }
    }
    return static_cast<int>(cores.size()) + unknown;
}

std::optional<int> PhysicalCores::quotaLimit(const std::filesystem::path& cpuMaxFile) {
    std::ifstream in(cpuMaxFile);
    std::string quota;
    long long period = 0;
    if (!(in >> quota >> period) || quota == "max" || period <= 0)
        return std::nullopt;
    try {
        std::size_t used = 0;
        const long long amount = std::stoll(quota, &used);
        return used == quota.size() ? wholeCpus(amount, period) : std::nullopt;
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

std::optional<int> PhysicalCores::quotaLimitV1(const std::filesystem::path& cpuControllerFolder) {
    const std::optional<long long> quota = readNumber(cpuControllerFolder / "cpu.cfs_quota_us");
    const std::optional<long long> period = readNumber(cpuControllerFolder / "cpu.cfs_period_us");
    return quota && period ? wholeCpus(*quota, *period) : std::nullopt;
}

std::vector<int> PhysicalCores::allowedCpus() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0)
        return {};
    std::vector<int> cpus;
    for (int cpu = 0; cpu < CPU_SETSIZE; ++cpu) {
        if (CPU_ISSET(cpu, &set))
            cpus.push_back(cpu);
    }
    return cpus;
}

int PhysicalCores::defaultThreadCount() {
    const std::vector<int> cpus = allowedCpus();
    int count = cpus.empty() ? static_cast<int>(std::thread::hardware_concurrency())
                             : countAmong("/sys/devices/system/cpu", cpus);
    if (const std::optional<int> quota = ownQuota())
        count = std::min(count, *quota);
    return std::max(1, count);
}

} // namespace parlune::llm
