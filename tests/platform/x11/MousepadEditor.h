#pragma once

#include <QString>

#include <sys/types.h>

namespace parlune::x11 {
class EwmhWorkspace;
}

namespace parlune::test {

// A real GTK text editor (mousepad, its own process) showing one file, started for one test.
class MousepadEditor {
public:
    explicit MousepadEditor(parlune::x11::EwmhWorkspace& workspace) : workspace_(workspace) {}
    ~MousepadEditor();
    MousepadEditor(const MousepadEditor&) = delete;
    MousepadEditor& operator=(const MousepadEditor&) = delete;

    // Opens `text` (written as UTF-8 to a file named `name`) and waits until its window is active.
    bool open(const QString& text, const QString& name = QStringLiteral("document.txt"));
    pid_t pid() const { return pid_; }
    // Puts the caret at the start and selects `length` characters after the first `from`.
    void select(int from, int length);
    // Makes the editor's window the active one again.
    bool activate();
    // Saves with Ctrl+S and returns the file's text once it changed, or what it holds after 3 s.
    QString savedText();

private:
    bool waitUntilActive();

    parlune::x11::EwmhWorkspace& workspace_;
    pid_t pid_ = -1;
    QString path_;
};

} // namespace parlune::test
