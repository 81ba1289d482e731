// Pipeline overhead on a KDE Wayland session, with an instant model: from the key press to the
// replaced text in a Qt editor on a private headless KWin. Every port takes KDE's path: the
// shortcut through the global-shortcuts portal (KWin, its shortcut daemon, KDE's backend and the
// portal frontend), Control+C and Control+V through the remote-desktop portal, the clipboard
// through KWin's data-control and the application in front from the accessibility focus. Keys are
// pressed through KWin's fake input, so they travel its whole input path. Run by hand:
//   parlune-bench-kwin-pipeline-overhead [--runs N] [--no-accessibility]
// (--no-accessibility: the selection is taken by copy and paste, as for an application that shows
// no text on the bus; the application in front still comes from the bus.)
// Prints median and 95th percentile in milliseconds. The selected text is never printed.
#include "CompositorConnection.h"
#include "KWinFakeKeyboard.h"
#include "KWinSession.h"
#include "NoAccessibilityBus.h"
#include "StageTimes.h"
#include "core/async/Clock.h"
#include "core/async/TaskHandle.h"
#include "core/hotkeys/HotKeyManager.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextSelectionReplacer.h"
#include "platform/atspi/AtspiAccessibility.h"
#include "platform/atspi/AtspiFocusWorkspace.h"
#include "platform/atspi/AtspiWorker.h"
#include "platform/linux/portal/PortalGlobalShortcuts.h"
#include "platform/linux/portal/PortalRemoteDesktopKeyboard.h"
#include "platform/wayland/DataControlPasteboard.h"
#include "platform/wayland/WaylandConnection.h"
#include "platform/x11/X11KeyTable.h"
#include "support/FakeUserDefaults.h"
#include "support/RunTask.h"

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <cstdio>
#include <string>

using namespace parlune;
using bench::since;
using test::KWinFakeKeyboard;

namespace {

// Selects the fifth to tenth characters ("beta" of "alpha beta gamma") as the user would.
void selectWord(KWinFakeKeyboard& keys) {
    keys.tap({KWinFakeKeyboard::leftControl, KWinFakeKeyboard::home});
    for (int i = 0; i < 6; ++i) {
        keys.tap({KWinFakeKeyboard::right});
    }
    for (int i = 0; i < 4; ++i) {
        keys.tap({KWinFakeKeyboard::leftShift, KWinFakeKeyboard::right});
    }
}

} // namespace

int main(int argc, char** argv) {
    const bench::RunOptions options = bench::RunOptions::parse(argc, argv);
    const int runs = options.runs;
    atspi::AtspiAccessibility::prepareProcess();
    QCoreApplication app(argc, argv);
    test::KWinSession session;
    if (!session.start()) {
        std::fprintf(stderr, "no KWin session: %s\n", qPrintable(session.failure()));
        return 1;
    }
    // This process joins the session as an application on a KDE desktop would.
    qputenv("WAYLAND_DISPLAY", session.waylandSocketPath().toUtf8());
    qputenv("XDG_CURRENT_DESKTOP", "KDE");
    qputenv("XDG_SESSION_TYPE", "wayland");
    qputenv("DBUS_SESSION_BUS_ADDRESS", session.busAddress().toUtf8());
    qunsetenv("DISPLAY");
    QDBusConnection bus = session.connect(QStringLiteral("parlune-kwin-pipeline-bench"));

    auto connection = test::connectToCompositor();
    auto worker = atspi::AtspiWorker::start();
    if (!connection || !worker->waitForBus(10'000)) {
        std::fprintf(stderr, "cannot reach the compositor or the accessibility bus\n");
        return 1;
    }
    wayland::DataControlPasteboard pasteboard(*connection);
    atspi::AtspiFocusWorkspace workspace(worker);
    portal::PortalGlobalShortcuts shortcuts(bus, &x11::X11KeyTable::keysymFor,
                                            QStringLiteral("Rewrite the selection"));
    testing::FakeUserDefaults settings;
    portal::PortalRemoteDesktopKeyboard keyboard(bus, workspace, settings, &x11::X11KeyTable::keysymFor,
                                                 [&] { return shortcuts.isHeld(); });
    if (test::runTask(shortcuts.probe()) != portal::PortalGlobalShortcuts::Availability::available ||
        test::runTask(keyboard.probe()) != portal::PortalRemoteDesktopKeyboard::Availability::available ||
        !pasteboard.isUsable()) {
        std::fprintf(stderr, "the session lacks a portal or data-control\n");
        return 1;
    }
    atspi::AtspiAccessibility accessibilityBus(
        workspace, [] { return true; }, worker);
    bench::TimedPipeline pipeline(options, accessibilityBus, workspace, pasteboard, keyboard);
    ClipboardManager& clipboard = pipeline.clipboard;
    TextSelectionReplacer& replacer = pipeline.replacer;

    // The user's clipboard: something of their own for every restore to bring back.
    auto userClipboard =
        session.launch(QStringLiteral("wl-copy"), {QStringLiteral("--foreground"), QStringLiteral("kept")});

    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("text.txt"));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        return 1;
    }
    file.write("alpha beta gamma");
    file.close();
    auto editor = session.launch(QStringLiteral(PARLUNE_QT_EDITOR), {path});
    const auto editorPid = static_cast<ProcessId>(editor->waitForStarted() ? editor->processId() : 0);
    if (!test::pumpUntil(
            [&] {
                const auto front = workspace.frontmostApplication();
                return front && front->processIdentifier == editorPid;
            },
            20'000)) {
        std::fprintf(stderr, "the editor did not come to the front\n");
        return 1;
    }
    // Opened once beforehand, as it is by the first chord of a run of the application.
    test::runTask(keyboard.start(), 30'000);

    bench::Stages stats;
    int failures = 0;
    bool running = false;
    QElapsedTimer press;
    QElapsedTimer delivered;
    HotKeyManager hotKeys(shortcuts);
    hotKeys.registerShortcut(HotKeyShortcut::defaultShortcut(), [&] {
        delivered.start();
        stats["press delivered (KWin -> portal)"].add(since(press));
        spawnTask([&](std::stop_token token) -> QCoro::Task<void> {
            co_await bench::timedRewrite(replacer, stats, press, delivered, failures, token);
            running = false;
        });
    });
    if (!test::pumpUntil([&] { return !shortcuts.isBinding(); }, 30'000) ||
        shortcuts.boundTrigger().isEmpty()) {
        std::fprintf(stderr, "the shortcut was not bound\n");
        return 1;
    }

    KWinFakeKeyboard keys(session.waylandSocketPath());
    if (!keys.isReady()) {
        std::fprintf(stderr, "KWin offers no fake input\n");
        return 1;
    }
    failures += bench::pressRuns(
        runs, [&] { selectWord(keys); },
        [&] {
            keys.tap({KWinFakeKeyboard::leftAlt, KWinFakeKeyboard::space});
        },
        press, delivered, running);

    bench::timeRestores(clipboard, runs, stats);

    std::printf("pipeline overhead on KWin, Qt editor, %d runs, %s, instant model (ms)\n", runs,
                options.useAccessibility ? "AT-SPI on" : "selection by copy");
    bench::printStages(stats);
    std::printf("failed runs: %d\n", failures);
    for (auto* program : {editor.get(), userClipboard.get()}) {
        program->terminate();
        program->waitForFinished(3000);
    }
    return failures == 0 ? 0 : 2;
}
