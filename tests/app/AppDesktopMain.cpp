// Entry point of the application's desktop tests: the private desktop starts before QApplication
// connects to it. Listing the tests (CTest's discovery) starts nothing.
#include "DesktopSession.h"
#include "platform/atspi/AtspiAccessibility.h"

#include <QApplication>

#include <gtest/gtest.h>

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
    parlune::test::DesktopSession session;
    session.start(QStringLiteral(PARLUNE_TEST_OPENBOX_RC));
    parlune::test::DesktopSession::setCurrent(&session);
    int result = 0;
    if (session.isRunning()) {
        qputenv("QT_QPA_PLATFORM", "xcb");
        parlune::atspi::AtspiAccessibility::prepareProcess();
        QApplication app(argc, argv);
        QApplication::setQuitOnLastWindowClosed(false);
        result = RUN_ALL_TESTS();
    } else {
        QCoreApplication app(argc, argv);
        result = RUN_ALL_TESTS();
    }
    parlune::test::DesktopSession::setCurrent(nullptr);
    session.stop();
    return result;
}
