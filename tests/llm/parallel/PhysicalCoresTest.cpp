#include "llm/parallel/PhysicalCores.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <unistd.h>

namespace parlune::llm {
namespace {

namespace fs = std::filesystem;

// A sysfs-like tree in a fresh temporary folder, removed afterwards.
class FakeSysfs : public ::testing::Test {
protected:
    fs::path root =
        fs::temp_directory_path() / ("parlune-cpus-" + std::to_string(::getpid()) + "-" +
                                     ::testing::UnitTest::GetInstance()->current_test_info()->name());

    void SetUp() override { fs::create_directories(root); }
    void TearDown() override { fs::remove_all(root); }

    void write(const fs::path& file, const std::string& text) const {
        fs::create_directories((root / file).parent_path());
        std::ofstream(root / file) << text;
    }
    void cpu(int index, int package, int core) const {
        const std::string dir = "cpu" + std::to_string(index) + "/topology/";
        write(dir + "core_id", std::to_string(core) + "\n");
        write(dir + "physical_package_id", std::to_string(package) + "\n");
    }
};

TEST_F(FakeSysfs, HardwareThreadsOfOneCoreCountOnce) {
    // Two packages of two cores with two threads each; siblings numbered far apart as Linux does.
    for (int i = 0; i < 8; ++i)
        cpu(i, i % 4 / 2, i % 2);
    const int all[] = {0, 1, 2, 3, 4, 5, 6, 7};
    EXPECT_EQ(PhysicalCores::countAmong(root, all), 4);
    // The same core_id in another package is another core.
    const int firstThreads[] = {0, 1, 2, 3};
    EXPECT_EQ(PhysicalCores::countAmong(root, firstThreads), 4);
    // An affinity mask of two siblings is one core.
    const int siblings[] = {0, 4};
    EXPECT_EQ(PhysicalCores::countAmong(root, siblings), 1);
    EXPECT_EQ(PhysicalCores::countAmong(root, {}), 0);
}

TEST_F(FakeSysfs, ACpuWithoutReadableTopologyCountsAsACore) {
    cpu(0, 0, 0);
    cpu(1, 0, 0);
    write("cpu2/topology/core_id", "garbage\n"); // and no package id
    const int cpus[] = {0, 1, 2, 3};             // cpu3 has no folder at all
    EXPECT_EQ(PhysicalCores::countAmong(root, cpus), 3);
}

TEST_F(FakeSysfs, TheCgroupQuotaIsReadAsWholeCpus) {
    write("cpu.max", "max 100000\n");
    EXPECT_EQ(PhysicalCores::quotaLimit(root / "cpu.max"), std::nullopt);
    write("cpu.max", "200000 100000\n");
    EXPECT_EQ(PhysicalCores::quotaLimit(root / "cpu.max"), 2);
    write("cpu.max", "150000 100000\n"); // one and a half: two threads, one often waiting
    EXPECT_EQ(PhysicalCores::quotaLimit(root / "cpu.max"), 2);
    write("cpu.max", "5000 100000\n");
    EXPECT_EQ(PhysicalCores::quotaLimit(root / "cpu.max"), 1);
    for (const char* bad : {"", "200000\n", "abc 100000\n", "200000 0\n", "-5 100000\n", "12x 100000\n"}) {
        write("cpu.max", bad);
        EXPECT_EQ(PhysicalCores::quotaLimit(root / "cpu.max"), std::nullopt) << bad;
    }
    EXPECT_EQ(PhysicalCores::quotaLimit(root / "missing"), std::nullopt);
}

TEST_F(FakeSysfs, TheVersionOneQuotaIsReadAsWholeCpus) {
    write("cpu,cpuacct/cpu.cfs_quota_us", "-1\n");
    write("cpu,cpuacct/cpu.cfs_period_us", "100000\n");
    EXPECT_EQ(PhysicalCores::quotaLimitV1(root / "cpu,cpuacct"), std::nullopt);
    write("cpu,cpuacct/cpu.cfs_quota_us", "250000\n");
    EXPECT_EQ(PhysicalCores::quotaLimitV1(root / "cpu,cpuacct"), 3);
    write("cpu,cpuacct/cpu.cfs_period_us", "0\n");
    EXPECT_EQ(PhysicalCores::quotaLimitV1(root / "cpu,cpuacct"), std::nullopt);
    EXPECT_EQ(PhysicalCores::quotaLimitV1(root / "missing"), std::nullopt);
}

TEST(PhysicalCores, ThisMachinesDefaultIsWithinItsAllowedCpus) {
    const auto allowed = PhysicalCores::allowedCpus();
    ASSERT_FALSE(allowed.empty());
    const int threads = PhysicalCores::defaultThreadCount();
    EXPECT_GE(threads, 1);
    EXPECT_LE(threads, static_cast<int>(allowed.size()));
}

} // namespace
} // namespace parlune::llm
