// Latency of the portal ports on a headless KWin (a private kwin_wayland --virtual session with
// the portal frontend and KDE's backend): a key press through KWin's input path to the shortcut
// port's handler, and a synthetic Control+V through the remote-desktop portal until the portal
// has taken every key event. Run by hand:
//   parlune-bench-portal-latency [--runs N]
// Prints median and 95th percentile in milliseconds.
#include "KWinFakeKeyboard.h"
#include "KWinSession.h"
#include "core/hotkeys/HotKeyManager.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "platform/linux/portal/PortalGlobalShortcuts.h"
#include "platform/linux/portal/PortalRemoteDesktopKeyboard.h"
#include "platform/x11/X11KeyTable.h"
#include "support/FakeUserDefaults.h"
#include "support/FixedFrontApplication.h"
#include "support/RunTask.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace parlune;

namespace {

void report(const char* what, std::vector<double> samples) {
    if (samples.empty()) {
        std::printf("%-44s no samples\n", what);
        return;
    }
    std::sort(samples.begin(), samples.end());
    const double median = samples[samples.size() / 2];
    const double p95 = samples[std::min(samples.size() - 1, samples.size() * 95 / 100)];
    std::printf("%-44s %8.1f / %8.1f ms (median / p95, %zu runs)\n", what, median, p95, samples.size());
}

double elapsedMs(const QElapsedTimer& timer) {
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

} // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    int runs = 20;
    for (int i = 1; i + 1 < argc; ++i) {
        if (QByteArray(argv[i]) == "--runs") {
            runs = std::max(1, QByteArray(argv[i + 1]).toInt());
        }
    }
    test::KWinSession session;
    if (!session.start()) {
        std::fprintf(stderr, "no KWin session: %s\n", qPrintable(session.failure()));
        return 1;
    }
    QDBusConnection bus = session.connect(QStringLiteral("parlune-portal-bench"));

    portal::PortalGlobalShortcuts shortcuts(bus, &x11::X11KeyTable::keysymFor,
                                            QStringLiteral("Rewrite the selection"));
    if (test::runTask(shortcuts.probe()) != portal::PortalGlobalShortcuts::Availability::available) {
        std::fprintf(stderr, "no GlobalShortcuts portal\n");
        return 1;
    }
    int presses = 0;
    HotKeyManager manager(shortcuts);
    QElapsedTimer timer;
    timer.start();
    manager.registerShortcut(HotKeyShortcut::defaultShortcut(), [&] { ++presses; });
    test::pumpUntil([&] { return !shortcuts.isBinding(); }, 30'000);
    report("shortcut bound (first binding)", {elapsedMs(timer)});

    test::KWinFakeKeyboard keys(session.waylandSocketPath());
    std::vector<double> delivery;
    for (int run = 0; run < runs; ++run) {
        timer.restart();
        keys.tap({test::KWinFakeKeyboard::leftAlt, test::KWinFakeKeyboard::space});
        if (test::pumpUntil([&] { return presses == run + 1; }, 5000)) {
            delivery.push_back(elapsedMs(timer));
        }
        test::pumpFor(50);
    }
    report("key press -> shortcut handler", delivery);

    // Control+V into a Qt editor on the session, with a one-character clipboard.
    QTemporaryDir directory;
    const QString file = directory.filePath(QStringLiteral("text.txt"));
    QFile(file).open(QIODevice::WriteOnly);
    auto clipboard =
        session.launch(QStringLiteral("wl-copy"), {QStringLiteral("--foreground"), QStringLiteral("x")});
    auto editor = session.launch(QStringLiteral(PARLUNE_QT_EDITOR), {file});
    editor->waitForStarted();
    test::pumpUntil([&] { return editor->readAllStandardOutput().contains("focused"); }, 20'000);
    test::FixedFrontApplication workspace;
    workspace.front = static_cast<ProcessId>(editor->processId());
    testing::FakeUserDefaults settings;
    portal::PortalRemoteDesktopKeyboard keyboard(bus, workspace, settings, &x11::X11KeyTable::keysymFor,
                                                 [&] { return shortcuts.isHeld(); });
    test::runTask(keyboard.probe());
    timer.restart();
    const bool started = test::runTask(keyboard.start(), 30'000);
    report("remote-desktop session start",
           started ? std::vector<double>{elapsedMs(timer)} : std::vector<double>{});
    std::vector<double> chords;
    for (int run = 0; started && run < runs; ++run) {
        timer.restart();
        if (test::runTask(keyboard.sendCommandKey(KeyboardEvents::keyCodeV, workspace.front, {}), 10'000)) {
            chords.push_back(elapsedMs(timer));
        }
        test::pumpFor(50);
    }
    report("Control+V through the portal (4 key events)", chords);
    editor->terminate();
    editor->waitForFinished(3000);
    clipboard->terminate();
    clipboard->waitForFinished(3000);
    return 0;
}
