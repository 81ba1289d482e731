#pragma once

#include <QStringList>

#include <unistd.h>

namespace parlune::test {

// How the desktop tests and the pipeline benchmark start the applications they rewrite in. Each
// command takes the file to open as its last argument (EditorWindow appends it).

// FeatherPad (Qt 5). Qt joins the accessibility bus whenever QT_LINUX_ACCESSIBILITY_ALWAYS_ON is
// set, whatever its value; without a session bus it cannot find the bus at all.
inline QStringList featherPadCommand(bool onAccessibilityBus) {
    if (onAccessibilityBus) {
        return {QStringLiteral("env"), QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON=1"),
                QStringLiteral("featherpad")};
    }
    return {QStringLiteral("env"), QStringLiteral("-u"), QStringLiteral("QT_LINUX_ACCESSIBILITY_ALWAYS_ON"),
            QStringLiteral("DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent"), QStringLiteral("featherpad")};
}

// Chromium on the test display with a private profile. It refuses to start as root with its
// sandbox (CI runs the tests as root); as any other user the sandbox stays on.
inline QStringList chromiumCommand(const QString& profile) {
    QStringList command{QStringLiteral("chromium"),
                        QStringLiteral("--user-data-dir=") + profile,
                        QStringLiteral("--no-first-run"),
                        QStringLiteral("--no-default-browser-check"),
                        QStringLiteral("--password-store=basic"),
                        QStringLiteral("--disable-gpu"),
                        QStringLiteral("--disable-dev-shm-usage"),
                        QStringLiteral("--disable-background-networking"),
                        QStringLiteral("--force-renderer-accessibility")};
    if (::geteuid() == 0) {
        command << QStringLiteral("--no-sandbox");
    }
    return command;
}

// A page with the three kinds of text field, the first one focused.
inline const char* const fieldsPage = R"(<!doctype html>
<meta charset="utf-8"><title>fields</title>
<textarea id="area" autofocus onfocus="document.title='focused'">alpha beta gamma</textarea>
<input id="line" value="alpha beta gamma">
<div id="rich" contenteditable="true">alpha beta gamma</div>
)";

} // namespace parlune::test
