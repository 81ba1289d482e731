// The frontmost application from the compositor's IPC, against a local server that speaks the
// same framing and sends what sway sends.
#include "platform/wayland/SwayIpcWorkspace.h"
#include "support/RunTask.h"

#include <QLocalServer>
#include <QLocalSocket>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <cstring>

namespace parlune::wayland {
namespace {

QByteArray frame(std::uint32_t type, const QByteArray& payload) {
    QByteArray message("i3-ipc");
    const auto length = static_cast<std::uint32_t>(payload.size());
    message.append(reinterpret_cast<const char*>(&length), 4);
    message.append(reinterpret_cast<const char*>(&type), 4);
    return message + payload;
}

constexpr std::uint32_t windowEvent = 0x80000003u;
constexpr std::uint32_t treeReply = 4;

class SwayIpcWorkspaceTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(server.listen(directory.filePath(QStringLiteral("ipc.sock"))));
        qputenv("SWAYSOCK", server.fullServerName().toUtf8());
        workspace = SwayIpcWorkspace::connect();
        ASSERT_TRUE(workspace);
        ASSERT_TRUE(test::pumpUntil([&] { return server.hasPendingConnections() || peer; }, 2000));
        peer = server.nextPendingConnection();
        ASSERT_TRUE(peer);
    }
    void TearDown() override { qunsetenv("SWAYSOCK"); }

    void send(const QByteArray& bytes) {
        peer->write(bytes);
        peer->flush();
    }
    bool waitForReports(int count) {
        return test::pumpUntil([&] { return workspace->focusReports() >= count; }, 2000);
    }

    QTemporaryDir directory;
    QLocalServer server;
    QLocalSocket* peer = nullptr;
    std::unique_ptr<SwayIpcWorkspace> workspace;
};

TEST_F(SwayIpcWorkspaceTest, TheTreeAndFocusEventsNameTheFrontmostProcessAndItsIdentifier) {
    // It asks for window events and the tree as soon as it connects.
    ASSERT_TRUE(test::pumpUntil([&] { return peer->bytesAvailable() >= 2 * 14; }, 2000));
    const QByteArray asked = peer->readAll();
    EXPECT_TRUE(asked.contains("[\"window\"]"));

    send(frame(treeReply, R"({"nodes":[{"nodes":[
        {"pid":101,"app_id":"foot","focused":false},
        {"pid":102,"app_id":null,"window_properties":{"class":"XTerm"},"focused":true}]}]})"));
    ASSERT_TRUE(waitForReports(1));
    ASSERT_TRUE(workspace->frontmostApplication());
    EXPECT_EQ(workspace->frontmostApplication()->processIdentifier, 102);
    // XWayland windows are known by their X11 class, as on an X11 session.
    EXPECT_EQ(workspace->frontmostApplication()->bundleIdentifier, QStringLiteral("XTerm"));
    EXPECT_EQ(workspace->bundleIdentifier(101), QStringLiteral("foot"));

    // A message split across writes is read once it is whole.
    const QByteArray focus =
        frame(windowEvent, R"({"change":"focus","container":{"pid":101,"app_id":"foot","focused":true}})");
    send(focus.left(9));
    test::pumpFor(50);
    EXPECT_EQ(workspace->frontmostApplication()->processIdentifier, 102);
    send(focus.mid(9));
    ASSERT_TRUE(waitForReports(2));
    EXPECT_EQ(workspace->frontmostApplication()->processIdentifier, 101);

    // The focused window closing leaves no frontmost application until the next focus report.
    send(frame(windowEvent, R"({"change":"close","container":{"pid":101,"app_id":"foot"}})"));
    ASSERT_TRUE(test::pumpUntil([&] { return !workspace->frontmostApplication(); }, 2000));
}

TEST_F(SwayIpcWorkspaceTest, AFocusedEmptyWorkspaceHasNoFrontmostApplication) {
    send(frame(treeReply, R"({"nodes":[{"type":"workspace","focused":true,"nodes":[
        {"pid":101,"app_id":"foot","focused":false}]}]})"));
    ASSERT_TRUE(waitForReports(1));
    EXPECT_FALSE(workspace->frontmostApplication());
    EXPECT_EQ(workspace->bundleIdentifier(101), QStringLiteral("foot"));
    EXPECT_EQ(workspace->bundleIdentifier(999), std::nullopt);
}

TEST_F(SwayIpcWorkspaceTest, SomethingThatIsNotTheIpcIsNotGuessedAt) {
    send(frame(treeReply, R"({"nodes":[{"pid":101,"app_id":"foot","focused":true}]})"));
    ASSERT_TRUE(waitForReports(1));
    send(QByteArrayLiteral("HTTP/1.1 400 Bad Request\r\n\r\n"));
    ASSERT_TRUE(test::pumpUntil([&] { return !workspace->frontmostApplication(); }, 2000));
}

} // namespace
} // namespace parlune::wayland
