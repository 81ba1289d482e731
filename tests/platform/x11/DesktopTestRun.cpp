#include "DesktopTestRun.h"
#include "DesktopSession.h"
#include "platform/atspi/AtspiAccessibility.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

#include <cstring>

namespace parlune::test {

int runDesktopTests(int argc, char** argv, const QString& openboxConfig,
                    const std::function<int(int&, char**)>& withDesktop) {
    bool listing = false;
    for (int i = 1; i < argc; ++i) {
        listing = listing || std::strncmp(argv[i], "--gtest_list_tests", 18) == 0;
    }
    ::testing::InitGoogleTest(&argc, argv);
    if (listing) {
        return RUN_ALL_TESTS();
    }
    atspi::AtspiAccessibility::prepareProcess();
    DesktopSession session;
    session.start(openboxConfig);
    DesktopSession::setCurrent(&session);
    int result = 0;
    if (session.isRunning()) {
        result = withDesktop(argc, argv);
    } else {
        QCoreApplication app(argc, argv);
        result = RUN_ALL_TESTS();
    }
    DesktopSession::setCurrent(nullptr);
    session.stop();
    return result;
}

} // namespace parlune::test
