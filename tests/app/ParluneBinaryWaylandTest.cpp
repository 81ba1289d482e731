// The real `parlune` on a private headless sway, on Qt's Wayland platform: the shortcut is a key
// bound in sway to `parlune --rewrite-selection`, as the settings window tells the user, and the
// rewrite comes from a model our writer made.
#include "CompositorConnection.h"
#include "ParluneProcess.h"
#include "SwaySession.h"
#include "Typist.h"
#include "WaylandEditor.h"
#include "WlClipboard.h"
#include "platform/wayland/SwayIpcWorkspace.h"
#include "platform/wayland/WaylandConnection.h"
#include "support/RunTask.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <xkbcommon/xkbcommon-keysyms.h>

namespace parlune::test {
namespace {

TEST(ParluneBinaryWaylandTest, BoundCommandReplacesTheEditorSelectionAndGivesTheClipboardBack) {
    if (!SwaySession::current() || !SwaySession::current()->isRunning()) {
        GTEST_SKIP() << "no test compositor";
    }
    auto connection = test::connectToCompositor();
    ASSERT_TRUE(connection);
    auto workspace = wayland::SwayIpcWorkspace::connect();
    ASSERT_TRUE(workspace);
    Typist typist(*connection);
    ASSERT_TRUE(typist.isReady());

    QTemporaryDir home;
    ParluneProcess parlune(home,
                           {.binary = QStringLiteral(PARLUNE_BINARY), .platform = QStringLiteral("wayland")});
    ASSERT_TRUE(parlune.start()) << parlune.log().toStdString();
    ASSERT_TRUE(parlune.waitForSettingsWindow(*workspace)) << parlune.log().toStdString();

    WlClipboard::copy(QByteArrayLiteral("the user's own words"));
    const QStringList userTypes = WlClipboard::types();
    ASSERT_FALSE(userTypes.isEmpty());

    WaylandEditor editor(*workspace, typist);
    const QString original =
        QStringLiteral("Keep this. the meeting is moved to next week becaus of travel. Keep this too.");
    ASSERT_TRUE(editor.open(original));
    editor.select(11, 51);
    ASSERT_EQ(SwaySession::swaymsg({QStringLiteral("bindsym Ctrl+Shift+y exec %1 --rewrite-selection")
                                        .arg(QStringLiteral(PARLUNE_BINARY))}),
              0);
    ASSERT_TRUE(typist.tap(XKB_KEY_y, true, true));

    QString saved;
    ASSERT_TRUE(pumpUntil([&] { return (saved = editor.savedText()) != original; }, 30000))
        << "the selection was not replaced\n"
        << parlune.log().toStdString();
    EXPECT_TRUE(saved.startsWith(QStringLiteral("Keep this. "))) << saved.toStdString();
    EXPECT_TRUE(saved.endsWith(QStringLiteral(" Keep this too."))) << saved.toStdString();
    EXPECT_FALSE(saved.contains(QStringLiteral("becaus of travel")));
    pumpUntil([&] { return WlClipboard::types() == userTypes; }, 3000);
    EXPECT_EQ(WlClipboard::types(), userTypes);
    EXPECT_EQ(WlClipboard::paste(QStringLiteral("text/plain;charset=utf-8")),
              QByteArrayLiteral("the user's own words"));
}

} // namespace
} // namespace parlune::test
