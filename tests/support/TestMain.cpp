#include <QCoreApplication>
#include <gtest/gtest.h>

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    const int result = RUN_ALL_TESTS();
    // Objects a test destroyed cancelled their tasks, but a cancelled task ends on a later turn of
    // the event loop; let those turns run so every task's frame is freed before the process ends.
    for (int turn = 0; turn < 4; ++turn) {
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QCoreApplication::processEvents();
    }
    return result;
}
