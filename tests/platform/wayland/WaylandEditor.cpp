#include "WaylandEditor.h"

#include "DesktopSession.h"
#include "SwaySession.h"
#include "Typist.h"
#include "platform/wayland/SwayIpcWorkspace.h"
#include "support/RunTask.h"

#include <QFile>

#include <xkbcommon/xkbcommon-keysyms.h>

namespace parlune::test {

WaylandEditor::~WaylandEditor() {
    DesktopSession::terminate(pid_);
}

bool WaylandEditor::open(const QString& text, const QString& name) {
    path_ = SwaySession::current()->directory() + QLatin1Char('/') + name;
    QFile file(path_);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return false;
    }
    file.write(text.toUtf8());
    file.close();
    pid_ = DesktopSession::spawn(command_ + QStringList{path_});
    const bool focused = pumpUntil(
        [&] {
            const auto front = workspace_.frontmostApplication();
            return front && front->processIdentifier == pid_;
        },
        10000);
    // The window has focus before the toolkit has mapped its text view and taken the keyboard.
    pumpFor(500);
    return focused;
}

void WaylandEditor::select(int from, int length) {
    typist_.tap(XKB_KEY_Home, true);
    for (int i = 0; i < from; ++i) {
        typist_.tap(XKB_KEY_Right);
    }
    for (int i = 0; i < length; ++i) {
        typist_.tap(XKB_KEY_Right, false, true);
    }
}

QString WaylandEditor::fileText() const {
    QFile file(path_);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QString WaylandEditor::savedText() {
    const QString before = fileText();
    typist_.tap(XKB_KEY_s, true);
    QString now = before;
    // The editor may empty the file before writing it: the save counts once the text holds still.
    pumpUntil(
        [&] {
            const QString current = fileText();
            const bool settled = current != before && current == now && !current.isEmpty();
            now = current;
            return settled;
        },
        3000);
    return fileText();
}

} // namespace parlune::test
