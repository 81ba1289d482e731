// A Qt text editor for the accessibility tests: shows one file in a QPlainTextEdit and writes the
// text back to the file on every change (Ctrl+S does nothing extra). Qt applications join the
// accessibility bus only when asked to, so this one asks for itself.
// Prints "focused" on standard output each time its window gets the keyboard focus.
// Usage: parlune_qt_editor FILE [FROM LENGTH] (the characters to select once it shows)
#include <QApplication>
#include <QFile>
#include <QPlainTextEdit>
#include <QTextCursor>
#include <QWindow>

#include <cstdio>

int main(int argc, char** argv) {
    qputenv("QT_LINUX_ACCESSIBILITY_ALWAYS_ON", "1");
    QApplication app(argc, argv);
    if (argc != 2 && argc != 4) {
        return 2;
    }
    const QString path = QString::fromLocal8Bit(argv[1]);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return 1;
    }
    QPlainTextEdit editor;
    editor.setPlainText(QString::fromUtf8(file.readAll()));
    file.close();
    QObject::connect(&editor, &QPlainTextEdit::textChanged, &editor, [&] {
        QFile out(path);
        if (out.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
            out.write(editor.toPlainText().toUtf8());
        }
    });
    QObject::connect(&app, &QGuiApplication::focusWindowChanged, [](QWindow* window) {
        if (window) {
            std::fputs("focused\n", stdout);
            std::fflush(stdout);
        }
    });
    if (argc == 4) {
        QTextCursor cursor = editor.textCursor();
        cursor.setPosition(QString::fromLatin1(argv[2]).toInt());
        cursor.setPosition(cursor.position() + QString::fromLatin1(argv[3]).toInt(), QTextCursor::KeepAnchor);
        editor.setTextCursor(cursor);
    }
    editor.resize(500, 300);
    editor.show();
    editor.activateWindow();
    return app.exec();
}
