#include "core/shell/TransientStatus.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"

#include <QElapsedTimer>
#include <QStringList>

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(TransientStatusTest, NewerMessageReplacesTheOldOneAndGetsAFullDuration) {
    QStringList presented;
    TransientStatus status([&](const QString& message) { presented << message; },
                           std::chrono::milliseconds(300));
    status.show(QStringLiteral("First"));
    test::pumpFor(200);
    // Started before the message, so a late-running test only makes the measured time longer.
    QElapsedTimer sinceSecond;
    sinceSecond.start();
    status.show(QStringLiteral("Second"));
    EXPECT_EQ(status.toolTip(), "Second");
    EXPECT_EQ(presented, QStringList({"First", "Second"}));

    ASSERT_TRUE(test::pumpUntil([&] { return !status.currentMessage(); }));
    // Had the first message's reset survived, this would be about 100 ms (timers may fire a little early).
    EXPECT_GE(sinceSecond.elapsed(), 270);
    EXPECT_EQ(status.toolTip(), "Parlune");
}

} // namespace
} // namespace parlune
