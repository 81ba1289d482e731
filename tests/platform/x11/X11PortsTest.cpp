#include "platform/atspi/AtspiAccessibility.h"
#include "platform/linux/DesktopLauncher.h"
#include "platform/x11/EwmhWorkspace.h"
#include "platform/x11/X11KeyTable.h"
#include "platform/x11/X11Pasteboard.h"
#include "support/FixedFrontApplication.h"
#include "support/TestFiles.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <xcb/xproto.h>

#include <gtest/gtest.h>

namespace parlune::x11 {
namespace {

TEST(X11KeyTableTest, CarbonModifiersMapToCoreMasks) {
    EXPECT_EQ(X11KeyTable::modifierMaskFor(2048), XCB_MOD_MASK_1);
    EXPECT_EQ(X11KeyTable::modifierMaskFor(4096), XCB_MOD_MASK_CONTROL);
    EXPECT_EQ(X11KeyTable::modifierMaskFor(512), XCB_MOD_MASK_SHIFT);
    EXPECT_EQ(X11KeyTable::modifierMaskFor(256), XCB_MOD_MASK_4);
    EXPECT_EQ(X11KeyTable::modifierMaskFor(256 | 512), XCB_MOD_MASK_4 | XCB_MOD_MASK_SHIFT);
    // Caps Lock (1024) and other Carbon bits are not part of a chord.
    EXPECT_EQ(X11KeyTable::modifierMaskFor(1024), 0);
    EXPECT_EQ(X11KeyTable::modifierMaskFor(0), 0);
}

TEST(X11PasteboardTest, PseudoTargetsAreNeverData) {
    for (const char* target :
         {"TARGETS", "MULTIPLE", "TIMESTAMP", "SAVE_TARGETS", "GTK_TEXT_BUFFER_CONTENTS"}) {
        EXPECT_TRUE(X11Pasteboard::isPseudoTarget(QString::fromLatin1(target))) << target;
    }
    for (const char* target :
         {"UTF8_STRING", "text/html", "application/x-gtk-text-buffer-rich-text", "targets"}) {
        EXPECT_FALSE(X11Pasteboard::isPseudoTarget(QString::fromLatin1(target))) << target;
    }
}

// Points the XDG directories at a scratch tree for one test.
class ScopedXdgDirectories {
public:
    ScopedXdgDirectories() {
        for (const char* name : {"XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_DATA_DIRS"}) {
            saved_.emplace_back(name, qgetenv(name));
        }
        qputenv("XDG_CONFIG_HOME", (root_.path() + "/config").toLocal8Bit());
        qputenv("XDG_DATA_HOME", (root_.path() + "/data").toLocal8Bit());
        qputenv("XDG_DATA_DIRS", (root_.path() + "/system").toLocal8Bit());
    }
    ~ScopedXdgDirectories() {
        for (const auto& [name, value] : saved_) {
            value.isNull() ? qunsetenv(name) : qputenv(name, value);
        }
    }
    void write(const QString& relative, const QByteArray& text) {
        test::writeFile(root_.filePath(relative), text);
    }

private:
    QTemporaryDir root_;
    std::vector<std::pair<const char*, QByteArray>> saved_;
};

TEST(DesktopLauncherTest, SchemeHandlersComeFromTheDesktopsTables) {
    ScopedXdgDirectories xdg;
    EXPECT_FALSE(DesktopLauncher::hasHandlerForScheme(QStringLiteral("settings")));
    xdg.write(QStringLiteral("system/applications/mimeinfo.cache"),
              "[MIME Cache]\nx-scheme-handler/settings=control-center.desktop;\nx-scheme-handler/empty=\n");
    EXPECT_TRUE(DesktopLauncher::hasHandlerForScheme(QStringLiteral("settings")));
    EXPECT_TRUE(DesktopLauncher::hasHandlerForScheme(QStringLiteral("SETTINGS")));
    EXPECT_FALSE(DesktopLauncher::hasHandlerForScheme(QStringLiteral("empty")));
    EXPECT_FALSE(DesktopLauncher::hasHandlerForScheme(QStringLiteral("x-apple.systempreferences")));
    xdg.write(QStringLiteral("config/mimeapps.list"),
              "[Default Applications]\nx-scheme-handler/zoommtg=zoom.desktop\n");
    EXPECT_TRUE(DesktopLauncher::hasHandlerForScheme(QStringLiteral("zoommtg")));
}

TEST(AtspiAccessibilityTest, WithoutAnAccessibilityBusThereIsNoFocusedElement) {
    // This process has no session bus to find the accessibility bus on.
    const QByteArray savedBus = qgetenv("DBUS_SESSION_BUS_ADDRESS");
    const QByteArray savedDisplay = qgetenv("DISPLAY");
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/bus");
    qunsetenv("DISPLAY");
    test::FixedFrontApplication workspace;
    bool keys = false;
    atspi::AtspiAccessibility accessibility(workspace, [&] { return keys; });
    EXPECT_EQ(accessibility.focusedElement(), nullptr);
    EXPECT_FALSE(accessibility.isProcessTrusted());
    EXPECT_FALSE(accessibility.requestTrustWithPrompt());
    keys = true;
    EXPECT_TRUE(accessibility.isProcessTrusted());
    qputenv("DBUS_SESSION_BUS_ADDRESS", savedBus);
    if (!savedDisplay.isNull()) {
        qputenv("DISPLAY", savedDisplay);
    }
}

} // namespace
} // namespace parlune::x11
