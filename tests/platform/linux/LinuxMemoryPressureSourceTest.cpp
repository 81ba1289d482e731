#include "platform/linux/LinuxMemoryPressureSource.h"

#include "support/RunTask.h"

#include <QFile>

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(LinuxMemoryPressureSourceTest, MissingPressureFileReportsNothing) {
    LinuxMemoryPressureSource source(QStringLiteral("/nonexistent/pressure/memory"));
    int events = 0;
    source.start([&](MemoryPressureLevel) { ++events; });
    EXPECT_FALSE(source.isActive());
    test::pumpFor(50);
    EXPECT_EQ(events, 0);
}

TEST(LinuxMemoryPressureSourceTest, KernelAcceptsTheDefaultTriggersAndRejectsAMalformedOne) {
    const QString psi = QStringLiteral("/proc/pressure/memory");
    if (!QFile::exists(psi)) {
        GTEST_SKIP() << "this kernel has no pressure-stall information";
    }
    LinuxMemoryPressureSource source;
    source.start([](MemoryPressureLevel) {});
    if (!source.isActive()) {
        GTEST_SKIP() << "PSI triggers are not permitted here";
    }
    source.cancel();
    EXPECT_FALSE(source.isActive());

    LinuxMemoryPressureSource malformed(
        psi, {{MemoryPressureLevel::warning, QStringLiteral("some 150000 2000000")},
              {MemoryPressureLevel::critical, QStringLiteral("full lots")}});
    malformed.start([](MemoryPressureLevel) {});
    EXPECT_FALSE(malformed.isActive()) << "half a source must not run";
}

} // namespace
} // namespace parlune
