#include "DesktopTest.h"
#include "EditorWindow.h"
#include "platform/atspi/AtspiFocusWorkspace.h"
#include "platform/atspi/AtspiWorker.h"
#include "support/RunTask.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <unistd.h>

namespace parlune::test {
namespace {

// The focus workspace knows nothing of X11; this desktop is only where real applications run.
class AtspiFocusWorkspaceDesktopTest : public DesktopTest {
protected:
    void SetUp() override {
        DesktopTest::SetUp();
        if (IsSkipped()) {
            return;
        }
        worker = atspi::AtspiWorker::start();
        if (!worker->waitForBus(5000)) {
            GTEST_SKIP() << "no accessibility bus";
        }
        focus = std::make_unique<atspi::AtspiFocusWorkspace>(worker);
    }
    void TearDown() override {
        focus.reset();
        worker.reset();
        DesktopTest::TearDown();
    }

    bool frontmostBecomes(pid_t pid) {
        return pumpUntil(
            [&] {
                const auto front = focus->frontmostApplication();
                return front && front->processIdentifier == pid;
            },
            10000);
    }

    std::shared_ptr<atspi::AtspiWorker> worker;
    std::unique_ptr<atspi::AtspiFocusWorkspace> focus;
};

TEST_F(AtspiFocusWorkspaceDesktopTest, FrontmostApplicationFollowsFocusAcrossToolkits) {
    EditorWindow gtk(*workspace);
    ASSERT_TRUE(gtk.open(QStringLiteral("one"), QStringLiteral("one.txt")));
    ASSERT_TRUE(frontmostBecomes(gtk.pid()));
    EXPECT_EQ(focus->frontmostApplication()->bundleIdentifier, QStringLiteral("mousepad"));
    EXPECT_EQ(focus->frontmostToolkit().toLower(), QStringLiteral("gtk"));

    EditorWindow qt(*workspace, {QStringLiteral(PARLUNE_QT_EDITOR)});
    ASSERT_TRUE(qt.open(QStringLiteral("two"), QStringLiteral("two.txt")));
    ASSERT_TRUE(frontmostBecomes(qt.pid()));
    EXPECT_EQ(focus->frontmostApplication()->bundleIdentifier,
              QFileInfo(QStringLiteral(PARLUNE_QT_EDITOR)).fileName());
    EXPECT_EQ(focus->frontmostToolkit().toLower(), QStringLiteral("qt"));

    // Back to the first: activation alone moves it, with no typing.
    ASSERT_TRUE(gtk.activate());
    EXPECT_TRUE(frontmostBecomes(gtk.pid()));
}

TEST_F(AtspiFocusWorkspaceDesktopTest, AnApplicationAlreadyInFrontIsKnownBeforeAnyEvent) {
    EditorWindow gtk(*workspace);
    ASSERT_TRUE(gtk.open(QStringLiteral("early"), QStringLiteral("early.txt")));
    // A second workspace, started while the editor is already active, finds it by its state.
    atspi::AtspiFocusWorkspace late(worker);
    EXPECT_TRUE(pumpUntil(
        [&] {
            const auto front = late.frontmostApplication();
            return front && front->processIdentifier == gtk.pid();
        },
        10000));
    EXPECT_EQ(late.focusReports(), 1);
}

TEST_F(AtspiFocusWorkspaceDesktopTest, IdentifiersAreExecutableNamesOfLiveProcessesOnly) {
    EXPECT_EQ(focus->bundleIdentifier(::getpid()),
              QFileInfo(QCoreApplication::applicationFilePath()).fileName());
    EXPECT_EQ(focus->bundleIdentifier(0), std::nullopt);
    EXPECT_EQ(focus->bundleIdentifier(-1), std::nullopt);
    EXPECT_EQ(focus->bundleIdentifier(99999999), std::nullopt);
    // The first process may hide its executable (another user's, or a container's); its short
    // name is still told.
    const std::optional<QString> init = focus->bundleIdentifier(1);
    ASSERT_TRUE(init.has_value());
    EXPECT_FALSE(init->isEmpty());
}

} // namespace
} // namespace parlune::test
