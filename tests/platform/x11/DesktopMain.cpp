// Entry point of the X11 ports' desktop tests, with a report of main-thread stalls per suite.
#include "DesktopTestRun.h"
#include "StallWatchdog.h"

#include <QGuiApplication>
#include <gtest/gtest.h>

#include <cstdio>

namespace {

// Prints, after each suite, the longest main-thread stall while the ports worked in it.
class StallReport final : public ::testing::EmptyTestEventListener {
    void OnTestSuiteStart(const ::testing::TestSuite&) override {
        if (auto* watchdog = parlune::test::StallWatchdog::current()) {
            watchdog->reset();
        }
    }
    void OnTestSuiteEnd(const ::testing::TestSuite& suite) override {
        if (auto* watchdog = parlune::test::StallWatchdog::current()) {
            std::printf("[ STALL    ] %s: longest main-thread stall while the ports worked: %lld ms\n",
                        suite.name(), static_cast<long long>(watchdog->longestStallMs()));
            std::fflush(stdout);
        }
    }
};

} // namespace

int main(int argc, char** argv) {
    return parlune::test::runDesktopTests(
        argc, argv, QStringLiteral(PARLUNE_TEST_OPENBOX_RC), [](int& count, char** arguments) {
            QGuiApplication app(count, arguments);
            parlune::test::StallWatchdog watchdog;
            ::testing::UnitTest::GetInstance()->listeners().Append(new StallReport);
            return RUN_ALL_TESTS();
        });
}
