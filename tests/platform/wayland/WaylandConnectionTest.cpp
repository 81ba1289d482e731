// Opening the compositor connection without a compositor that answers: the main thread keeps
// running its event loop and the reason comes back as a sentence.
#include "platform/wayland/WaylandConnection.h"
#include "StallWatchdog.h"
#include "support/RunTask.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <algorithm>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace parlune::wayland {
namespace {

// A listening socket nobody reads from: the kernel accepts the connection, nothing answers.
class SilentCompositor {
public:
    SilentCompositor() {
        path_ = directory_.filePath(QStringLiteral("silent-0"));
        fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const QByteArray name = path_.toLocal8Bit();
        std::copy(name.begin(), name.end(), address.sun_path);
        listening_ = fd_ >= 0 && ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                     ::listen(fd_, 4) == 0;
    }
    ~SilentCompositor() { ::close(fd_); }
    bool isListening() const { return listening_; }
    const QString& path() const { return path_; }

private:
    QTemporaryDir directory_;
    QString path_;
    int fd_ = -1;
    bool listening_ = false;
};

class ScopedDisplay {
public:
    explicit ScopedDisplay(const QString& value) : old_(qgetenv("WAYLAND_DISPLAY")) {
        qputenv("WAYLAND_DISPLAY", value.toLocal8Bit());
    }
    ~ScopedDisplay() { qputenv("WAYLAND_DISPLAY", old_); }

private:
    QByteArray old_;
};

QString problemOf(WaylandConnection::Opened opened) {
    const QString* problem = std::get_if<QString>(&opened);
    return problem ? *problem : QString();
}

TEST(WaylandConnectionTest, ACompositorThatNeverAnswersIsGivenUpWithoutStallingTheMainThread) {
    SilentCompositor compositor;
    ASSERT_TRUE(compositor.isListening());
    ScopedDisplay display(compositor.path());
    test::StallWatchdog watchdog;
    QString problem;
    {
        test::StallWatchdog::Armed armed;
        problem = problemOf(test::runTask(WaylandConnection::open(1000), 5000));
    }
    EXPECT_TRUE(problem.contains(QLatin1String("did not answer within 1 s"))) << problem.toStdString();
    EXPECT_TRUE(problem.contains(compositor.path())) << problem.toStdString();
    EXPECT_LT(watchdog.longestStallMs(), 250);
}

TEST(WaylandConnectionTest, NoCompositorAtAllIsSaidAtOnce) {
    QTemporaryDir empty;
    ScopedDisplay display(empty.filePath(QStringLiteral("nobody-0")));
    const QString problem = problemOf(test::runTask(WaylandConnection::open(5000), 1000));
    EXPECT_TRUE(problem.contains(QLatin1String("could not connect"))) << problem.toStdString();
}

} // namespace
} // namespace parlune::wayland
