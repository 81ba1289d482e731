#pragma once

#include "DesktopSession.h"
#include "platform/x11/X11Pasteboard.h"
#include "support/RunTask.h"

#include <gtest/gtest.h>

#include <QStringList>

#include <algorithm>
#include <memory>

namespace parlune::test {

inline const QByteArray userHtml = QByteArrayLiteral("<p>caf\xc3\xa9 <b>\xe2\x9c\x93</b></p>\n");
inline const QByteArray userText = QByteArrayLiteral("caf\xc3\xa9 \xe2\x9c\x93");

// One target of the clipboard as another client (xclip) reads it.
inline QByteArray clipboardTarget(const QString& target) {
    QByteArray bytes;
    const int status =
        DesktopSession::run({QStringLiteral("xclip"), QStringLiteral("-o"), QStringLiteral("-selection"),
                             QStringLiteral("clipboard"), QStringLiteral("-t"), target},
                            &bytes);
    return status == 0 ? bytes : QByteArray("<unreadable>");
}

// Another X client (its own process) holding the clipboard, as a browser would after the user
// copied rich text. Gone once someone else takes the clipboard.
class OtherClipboardClient {
public:
    OtherClipboardClient(x11::X11Pasteboard& observer, const QStringList& targetsAndData) {
        pid_ = DesktopSession::current()->spawn(QStringList{QStringLiteral(PARLUNE_CLIPBOARD_OWNER)} +
                                                targetsAndData);
        const QString first = targetsAndData.front();
        // Generous: on a loaded machine a Qt client can take seconds to start.
        owns_ = pumpUntil(
            [&] {
                const auto types = observer.types(0);
                return std::find(types.begin(), types.end(), first) != types.end();
            },
            10000);
    }
    ~OtherClipboardClient() { DesktopSession::terminate(pid_); }
    OtherClipboardClient(const OtherClipboardClient&) = delete;
    OtherClipboardClient& operator=(const OtherClipboardClient&) = delete;
    bool owns() const { return owns_; }

    // The user's clipboard of every test: rich text with its plain-text forms.
    static std::unique_ptr<OtherClipboardClient> withUsersRichText(x11::X11Pasteboard& observer) {
        return std::make_unique<OtherClipboardClient>(
            observer, QStringList{QStringLiteral("text/html"), QString::fromUtf8(userHtml),
                                  QStringLiteral("UTF8_STRING"), QString::fromUtf8(userText),
                                  QStringLiteral("text/plain"), QString::fromUtf8(userText)});
    }

private:
    pid_t pid_ = -1;
    bool owns_ = false;
};

// The clipboard holds the user's rich text again, byte for byte, and none of our markers.
inline void expectUserClipboardRestored() {
    const QByteArray targets = clipboardTarget(QStringLiteral("TARGETS"));
    for (const char* target : {"text/html", "UTF8_STRING", "text/plain"}) {
        EXPECT_TRUE(targets.contains(target)) << target << " missing from " << targets.toStdString();
    }
    EXPECT_FALSE(targets.contains("TransientType")) << targets.toStdString();
    EXPECT_EQ(clipboardTarget(QStringLiteral("text/html")), userHtml);
    EXPECT_EQ(clipboardTarget(QStringLiteral("text/plain")), userText);
    EXPECT_EQ(clipboardTarget(QStringLiteral("UTF8_STRING")), userText);
}

} // namespace parlune::test
