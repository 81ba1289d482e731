#include "core/shell/TransientStatus.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include <vector>

namespace parlune {
namespace {

using namespace std::chrono_literals;

TEST(TransientStatusTest, NewerMessageReplacesTheOldOneAndGetsAFullDuration) {
    constexpr auto duration = 300ms;
    std::vector<QString> presented;
    TransientStatus status([&](const QString& message) { presented.push_back(message); }, duration);
    int changes = 0;
    const Subscription subscription = status.changed.connect([&] { ++changes; });
    EXPECT_EQ(status.toolTip(), "Parlune");

    status.show(QStringLiteral("First"));
    test::pumpFor(200);
    status.show(QStringLiteral("Second"));
    QElapsedTimer sinceSecond;
    sinceSecond.start();
    EXPECT_EQ(status.currentMessage(), "Second");
    EXPECT_EQ(status.toolTip(), "Second");
    EXPECT_EQ(presented, (std::vector<QString>{"First", "Second"}));

    ASSERT_TRUE(test::pumpUntil([&] { return !status.currentMessage().has_value(); }, 5000));
    // Qt may fire a timer a little early; the first message's deadline would be 200 ms sooner.
    EXPECT_GE(sinceSecond.elapsed(), 270);
    EXPECT_EQ(status.toolTip(), "Parlune");
    EXPECT_EQ(changes, 3);
}

} // namespace
} // namespace parlune
