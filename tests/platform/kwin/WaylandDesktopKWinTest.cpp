#include "CompositorConnection.h"
#include "KWinTest.h"

#include "core/platform/Workspace.h"

#include "platform/linux/portal/PortalGlobalShortcuts.h"
#include "platform/linux/portal/PortalRemoteDesktopKeyboard.h"
#include "platform/wayland/WaylandDesktop.h"
#include "platform/x11/X11KeyTable.h"
#include "support/FakeUserDefaults.h"
#include "support/RunTask.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace parlune::wayland {
namespace {

using test::runTask;

// All Wayland ports of this process on a KDE session, with the portals asked first as the
// application does: nothing is refused, and each port takes KDE's path.
class WaylandDesktopOnKWin : public test::KWinTest {
protected:
    void SetUp() override {
        KWinTest::SetUp();
        if (setUpFailed()) {
            return;
        }
        enterSession();
    }
    void TearDown() override {
        if (editor_) {
            editor_->terminate();
            editor_->waitForFinished(3000);
        }
        KWinTest::TearDown();
    }

    std::unique_ptr<QProcess> editor_;
    QTemporaryDir directory_;
    testing::FakeUserDefaults settings_;
};

TEST_F(WaylandDesktopOnKWin, PortalsDataControlAndAccessibilityFocusServeEveryPort) {
    auto shortcuts = std::make_unique<portal::PortalGlobalShortcuts>(bus_, &x11::X11KeyTable::keysymFor,
                                                                     QStringLiteral("Rewrite the selection"));
    ASSERT_EQ(runTask(shortcuts->probe()), portal::PortalGlobalShortcuts::Availability::available);
    ASSERT_TRUE(runTask(portal::PortalRemoteDesktopKeyboard::keyboardOffer(bus_)).offered());

    WaylandDesktop::Options options;
    options.portalShortcuts = std::move(shortcuts);
    bool keyboardMade = false;
    options.portalKeyboard = [&](Workspace& workspace) {
        keyboardMade = true;
        return std::make_unique<portal::PortalRemoteDesktopKeyboard>(
            bus_, workspace, settings_, &x11::X11KeyTable::keysymFor, [] { return false; });
    };
    auto connection = test::connectToCompositor();
    ASSERT_TRUE(connection);
    WaylandDesktop::Result result = WaylandDesktop::connect(std::move(connection), std::move(options));
    ASSERT_TRUE(std::holds_alternative<std::unique_ptr<WaylandDesktop>>(result))
        << std::get<QString>(result).toStdString();
    auto& desktop = *std::get<std::unique_ptr<WaylandDesktop>>(result);
    EXPECT_TRUE(keyboardMade);
    EXPECT_EQ(desktop.capabilities().keys(), WaylandCapabilities::Keys::portal);
    EXPECT_EQ(desktop.shortcutPath().kind, ShortcutPath::Kind::registered);
    EXPECT_EQ(desktop.capabilities().clipboard(), WaylandCapabilities::Clipboard::dataControl)
        << "KWin 5.27 offers data-control to any client";
    EXPECT_NE(desktop.hotKeys(), nullptr);

    // KWin tells clients nothing of the active window: a Qt editor opened now is known to be in
    // front from its accessibility focus, by its executable's name.
    const QString file = directory_.filePath(QStringLiteral("text.txt"));
    QFile text(file);
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.close();
    editor_ = session_.launch(QStringLiteral(PARLUNE_QT_EDITOR), {file});
    ASSERT_TRUE(editor_->waitForStarted());
    const auto editorPid = static_cast<ProcessId>(editor_->processId());
    EXPECT_TRUE(test::pumpUntil(
        [&] {
            const auto front = desktop.workspace().frontmostApplication();
            return front && front->processIdentifier == editorPid;
        },
        20'000));
    EXPECT_EQ(desktop.workspace().bundleIdentifier(editorPid),
              QFileInfo(QStringLiteral(PARLUNE_QT_EDITOR)).fileName());
}

} // namespace
} // namespace parlune::wayland
