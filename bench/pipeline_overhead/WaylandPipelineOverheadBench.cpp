// Pipeline overhead on a Wayland desktop, with an instant model: from the key press to the
// replaced text in mousepad on a private headless sway. The shortcut takes the path sway offers:
// a key bound in sway's configuration runs `parlune --rewrite-selection`, which reaches this
// process over the session bus. Then the capture, validation, replacement (paste, confirmation and
// clipboard restore) and a clipboard restore on their own. Run by hand:
//   parlune-bench-wayland-pipeline-overhead [--runs N] [--no-accessibility]
// Prints median and 95th percentile in milliseconds. The selected text is never printed.
#include "CompositorConnection.h"
#include "NoAccessibilityBus.h"
#include "StageTimes.h"
#include "SwaySession.h"
#include "Typist.h"
#include "WaylandEditor.h"
#include "core/async/Clock.h"
#include "core/async/TaskHandle.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextSelectionReplacer.h"
#include "platform/atspi/AtspiAccessibility.h"
#include "platform/linux/SessionInstance.h"
#include "platform/wayland/DataControlPasteboard.h"
#include "platform/wayland/SwayIpcWorkspace.h"
#include "platform/wayland/VirtualKeyboardEvents.h"
#include "platform/wayland/WaylandConnection.h"
#include "support/RunTask.h"

#include <QCoreApplication>
#include <QProcess>

#include <xkbcommon/xkbcommon-keysyms.h>

#include <cstdio>
#include <string>

using namespace parlune;
using bench::since;

int main(int argc, char** argv) {
    const bench::RunOptions options = bench::RunOptions::parse(argc, argv);
    const int runs = options.runs;
    atspi::AtspiAccessibility::prepareProcess();
    test::SwaySession session;
    if (!session.start()) {
        std::fprintf(stderr, "no compositor: %s\n", qPrintable(session.failure()));
        return 1;
    }
    test::SwaySession::setCurrent(&session);
    QCoreApplication app(argc, argv);

    auto connection = test::connectToCompositor();
    auto workspace = connection ? wayland::SwayIpcWorkspace::connect() : nullptr;
    if (!workspace) {
        std::fprintf(stderr, "cannot reach the compositor\n");
        return 1;
    }
    wayland::DataControlPasteboard pasteboard(*connection);
    wayland::VirtualKeyboardEvents keyboard(*connection, *workspace);
    test::Typist typist(*connection);
    atspi::AtspiAccessibility accessibilityBus(*workspace, [&] { return keyboard.isAvailable(); });
    bench::TimedPipeline pipeline(options, accessibilityBus, *workspace, pasteboard, keyboard);
    ClipboardManager& clipboard = pipeline.clipboard;
    TextSelectionReplacer& replacer = pipeline.replacer;

    // The user's clipboard: something of their own for every restore to bring back.
    QProcess::startDetached(QStringLiteral("sh"),
                            {QStringLiteral("-c"), QStringLiteral("printf kept | wl-copy")});
    test::pumpFor(300);

    test::WaylandEditor editor(*workspace, typist);
    if (!editor.open(QStringLiteral("alpha beta gamma"))) {
        std::fprintf(stderr, "the editor did not start\n");
        return 1;
    }

    bench::Stages stats;
    int failures = 0;
    bool running = false;
    QElapsedTimer press;
    QElapsedTimer delivered;
    SessionInstance instance;
    const auto rewrite = [&] {
        delivered.start();
        stats["press delivered (sway binding -> D-Bus)"].add(since(press));
        spawnTask([&](std::stop_token token) -> QCoro::Task<void> {
            co_await bench::timedRewrite(replacer, stats, press, delivered, failures, token);
            running = false;
        });
    };
    if (instance.claim({.showSettings = [] {}, .rewriteSelection = rewrite}) !=
            SessionInstance::Claim::claimed ||
        test::SwaySession::swaymsg({QStringLiteral("bindsym Ctrl+Shift+y exec %1 --rewrite-selection")
                                        .arg(QStringLiteral(PARLUNE_BINARY))}) != 0) {
        std::fprintf(stderr, "cannot bind the command\n");
        return 1;
    }

    bench::pressRuns(
        runs, [&] { editor.select(6, 4); }, [&] { typist.tap(XKB_KEY_y, true, true); }, press, delivered,
        running);

    bench::timeRestores(clipboard, runs, stats);

    std::printf("pipeline overhead on sway, mousepad, %d runs, %s, instant model (ms)\n", runs,
                options.useAccessibility ? "AT-SPI on" : "no accessibility");
    bench::printStages(stats);
    std::printf("failed runs: %d\n", failures);
    test::SwaySession::setCurrent(nullptr);
    return failures == 0 ? 0 : 2;
}
