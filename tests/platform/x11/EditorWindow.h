#pragma once

#include <QString>
#include <QStringList>

#include <sys/types.h>

namespace parlune::x11 {
class EwmhWorkspace;
}

namespace parlune::test {

// A real text editor (its own process) showing one file, started for one test: mousepad (GTK 3)
// unless another command is given, which gets the file's path as its last argument.
class EditorWindow {
public:
    explicit EditorWindow(parlune::x11::EwmhWorkspace& workspace,
                          QStringList command = {QStringLiteral("mousepad"),
                                                 QStringLiteral("--disable-server")})
        : workspace_(workspace), command_(std::move(command)) {}
    ~EditorWindow();
    EditorWindow(const EditorWindow&) = delete;
    EditorWindow& operator=(const EditorWindow&) = delete;

    // Opens `text` (written as UTF-8 to a file named `name`) and waits until its window is active.
    bool open(const QString& text, const QString& name = QStringLiteral("document.txt"));
    pid_t pid() const { return pid_; }
    // Puts the caret at the start and selects `length` characters after the first `from`.
    void select(int from, int length);
    // Makes the editor's window the active one again.
    bool activate();
    // Saves with Ctrl+S and returns the file's text once it changed, or what it holds after 3 s.
    QString savedText();
    // The file's text as it is now (a program that writes it itself, such as a terminal's cat).
    QString fileText() const;

private:
    bool waitUntilActive();

    parlune::x11::EwmhWorkspace& workspace_;
    QStringList command_;
    pid_t pid_ = -1;
    QString path_;
};

} // namespace parlune::test
