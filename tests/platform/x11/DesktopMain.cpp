// Entry point of the desktop tests: the private desktop must exist before QGuiApplication
// connects to it, so it is started here rather than in a test fixture. Listing the tests (CTest's
// discovery) starts nothing.
#include "DesktopSession.h"
#include "StallWatchdog.h"
#include "platform/atspi/AtspiAccessibility.h"

#include <QGuiApplication>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

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
    bool listing = false;
    for (int i = 1; i < argc; ++i) {
        listing = listing || std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;
    }
    ::testing::InitGoogleTest(&argc, argv);
    if (listing) {
        return RUN_ALL_TESTS();
    }
    parlune::atspi::AtspiAccessibility::prepareProcess();
    parlune::test::DesktopSession session;
    session.start(QStringLiteral(PARLUNE_TEST_OPENBOX_RC));
    parlune::test::DesktopSession::setCurrent(&session);
    int result = 0;
    if (session.isRunning()) {
        QGuiApplication app(argc, argv);
        parlune::test::StallWatchdog watchdog;
        ::testing::UnitTest::GetInstance()->listeners().Append(new StallReport);
        result = RUN_ALL_TESTS();
    } else {
        // Without a desktop every test reports itself skipped, with the reason.
        QCoreApplication app(argc, argv);
        result = RUN_ALL_TESTS();
    }
    parlune::test::DesktopSession::setCurrent(nullptr);
    session.stop();
    return result;
}
