// Entry point of the Wayland desktop tests: the private compositor must exist before anything
// connects to it, so it is started here rather than in a test fixture. Listing the tests (CTest's
// discovery) starts nothing.
#include "StallWatchdog.h"
#include "SwaySession.h"

#include <QCoreApplication>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>

int main(int argc, char** argv) {
    bool listing = false;
    for (int i = 1; i < argc; ++i) {
        listing = listing || std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;
    }
    ::testing::InitGoogleTest(&argc, argv);
    if (listing) {
        return RUN_ALL_TESTS();
    }
    parlune::test::SwaySession session;
    session.start();
    parlune::test::SwaySession::setCurrent(&session);
    int result = 0;
    {
        QCoreApplication app(argc, argv);
        parlune::test::StallWatchdog watchdog;
        result = RUN_ALL_TESTS();
        if (session.isRunning()) {
            std::printf("[ STALL    ] longest main-thread stall while the Wayland ports worked: %lld ms\n",
                        static_cast<long long>(watchdog.longestStallMs()));
        }
    }
    parlune::test::SwaySession::setCurrent(nullptr);
    session.stop();
    return result;
}
