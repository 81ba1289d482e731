// Entry point of the application's desktop tests.
#include "DesktopTestRun.h"

#include <QApplication>

#include <gtest/gtest.h>

int main(int argc, char** argv) {
    return parlune::test::runDesktopTests(argc, argv, QStringLiteral(PARLUNE_TEST_OPENBOX_RC),
                                          [](int& count, char** arguments) {
                                              qputenv("QT_QPA_PLATFORM", "xcb");
                                              QApplication app(count, arguments);
                                              QApplication::setQuitOnLastWindowClosed(false);
                                              return RUN_ALL_TESTS();
                                          });
}
