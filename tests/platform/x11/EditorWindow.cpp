#include "EditorWindow.h"

#include "DesktopSession.h"
#include "platform/x11/EwmhWorkspace.h"
#include "support/RunTask.h"

#include <QElapsedTimer>
#include <QFile>

namespace parlune::test {

namespace {
QString readFile(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

void key(const QStringList& keys) {
    QStringList command{QStringLiteral("xdotool"), QStringLiteral("key"), QStringLiteral("--delay"),
                        QStringLiteral("15")};
    command += keys;
    DesktopSession::run(command);
}
} // namespace

EditorWindow::~EditorWindow() {
    DesktopSession::terminate(pid_);
}

bool EditorWindow::open(const QString& text, const QString& name) {
    DesktopSession* session = DesktopSession::current();
    path_ = session->directory() + QLatin1Char('/') + name;
    QFile file(path_);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return false;
    }
    file.write(text.toUtf8());
    file.close();
    pid_ = session->spawn(command_ + QStringList{path_});
    return waitUntilActive();
}

bool EditorWindow::waitUntilActive() {
    const bool active = pumpUntil(
        [&] {
            const auto front = workspace_.frontmostApplication();
            return front && front->processIdentifier == pid_;
        },
        30000); // a browser's first start on a cold, loaded machine takes well over 8 s
    // The window is active before GTK has mapped its text view and taken keyboard focus.
    pumpFor(300);
    return active;
}

bool EditorWindow::activate() {
    QByteArray windows;
    DesktopSession::run({QStringLiteral("xdotool"), QStringLiteral("search"), QStringLiteral("--onlyvisible"),
                         QStringLiteral("--pid"), QString::number(pid_)},
                        &windows);
    const QByteArray first = windows.split('\n').value(0).trimmed();
    if (first.isEmpty()) {
        return false;
    }
    DesktopSession::run(
        {QStringLiteral("xdotool"), QStringLiteral("windowactivate"), QString::fromLatin1(first)});
    return waitUntilActive();
}

void EditorWindow::select(int from, int length) {
    QStringList keys{QStringLiteral("ctrl+Home")};
    for (int i = 0; i < from; ++i) {
        keys << QStringLiteral("Right");
    }
    for (int i = 0; i < length; ++i) {
        keys << QStringLiteral("shift+Right");
    }
    key(keys);
}

QString EditorWindow::fileText() const {
    return readFile(path_);
}

QString EditorWindow::savedText() {
    const QString before = readFile(path_);
    key({QStringLiteral("ctrl+s")});
    // Editors may empty the file before writing it anew, and a loaded machine can leave it empty
    // for a while: the text counts once it differs from before, is not empty and holds still for a
    // moment. An empty text still comes back when the wait ends.
    QString now = before;
    QString last = before;
    QElapsedTimer steady;
    steady.start();
    pumpUntil(
        [&] {
            now = readFile(path_);
            if (now != last) {
                last = now;
                steady.restart();
                return false;
            }
            return now != before && !now.isEmpty() && steady.elapsed() >= 150;
        },
        3000);
    return now;
}

} // namespace parlune::test
