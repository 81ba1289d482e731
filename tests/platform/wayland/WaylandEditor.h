#pragma once

#include <QString>
#include <QStringList>

#include <sys/types.h>

namespace parlune::wayland {
class SwayIpcWorkspace;
}

namespace parlune::test {

class Typist;

// A native Wayland application showing one file, started for one test: mousepad (GTK 3 on its
// Wayland backend) unless another command is given, which gets the file's path as its last
// argument.
class WaylandEditor {
public:
    WaylandEditor(wayland::SwayIpcWorkspace& workspace, Typist& typist,
                  QStringList command = {QStringLiteral("mousepad"), QStringLiteral("--disable-server")})
        : workspace_(workspace), typist_(typist), command_(std::move(command)) {}
    ~WaylandEditor();
    WaylandEditor(const WaylandEditor&) = delete;
    WaylandEditor& operator=(const WaylandEditor&) = delete;

    // Opens `text` (written as UTF-8 to a file named `name`) and waits until its window has focus.
    bool open(const QString& text, const QString& name = QStringLiteral("document.txt"));
    pid_t pid() const { return pid_; }
    // Puts the caret at the start and selects `length` characters after the first `from`.
    void select(int from, int length);
    // Saves with Ctrl+S and returns the file's text once it changed, or what it holds after 3 s.
    QString savedText();
    // The file's text as it is now.
    QString fileText() const;

private:
    wayland::SwayIpcWorkspace& workspace_;
    Typist& typist_;
    QStringList command_;
    pid_t pid_ = -1;
    QString path_;
};

} // namespace parlune::test
