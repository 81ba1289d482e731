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

// The cgroup v2 directory of this process, from /proc/self/cgroup ("0::/path").
std::optional<std::filesystem::path> ownCgroup() {
    std::ifstream in("/proc/self/cgroup");
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("0::", 0) == 0)
            return std::filesystem::path("/sys/fs/cgroup") /
                   std::filesystem::path(line.substr(3)).relative_path();
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
        if (used != quota.size() || amount <= 0)
            return std::nullopt;
        return static_cast<int>(
            std::max(1.0, std::ceil(static_cast<double>(amount) / static_cast<double>(period))));
    } catch (const std::exception&) {
        return std::nullopt;
    }
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
    if (const std::optional<std::filesystem::path> cgroup = ownCgroup()) {
        if (const std::optional<int> quota = quotaLimit(*cgroup / "cpu.max"))
            count = std::min(count, *quota);
    }
    return std::max(1, count);
}

} // namespace parlune::llm
