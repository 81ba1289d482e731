// Pipeline overhead on a real desktop, with an instant model: from the shortcut press to the
// replaced text in a real editor (mousepad on a private Xvfb + openbox desktop), and the capture,
// validation, replacement (paste, confirmation and clipboard restore) and a clipboard restore on
// their own. Run by hand:
//   parlune-bench-pipeline-overhead [--runs N] [--no-accessibility]
// Prints median and 95th percentile in milliseconds. The selected text is never printed.
#include "DesktopSession.h"
#include "EditorWindow.h"
#include "NoAccessibilityBus.h"
#include "StageTimes.h"
#include "TargetApplications.h"
#include "core/async/Clock.h"
#include "core/async/TaskHandle.h"
#include "core/hotkeys/HotKeyManager.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextSelectionReplacer.h"
#include "platform/atspi/AtspiAccessibility.h"
#include "platform/x11/EwmhWorkspace.h"
#include "platform/x11/X11Pasteboard.h"
#include "platform/x11/XTestKeyboardEvents.h"
#include "platform/x11/XcbConnection.h"
#include "platform/x11/XcbHotKeyService.h"
#include "support/RunTask.h"

#include <QElapsedTimer>
#include <QGuiApplication>
#include <QProcess>

#include <algorithm>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

using namespace parlune;
using bench::since;

int main(int argc, char** argv) {
    bench::RunOptions options;
    std::string target = "mousepad";
    int holdMs = 0;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (options.take(i, argc, argv)) {
            continue;
        }
        if (arg == "--target" && i + 1 < argc) {
            target = argv[++i]; // mousepad, featherpad or chromium
        } else if (arg == "--hold-ms" && i + 1 < argc) {
            holdMs = std::max(0, std::atoi(argv[++i])); // the shortcut stays down this long
        }
    }
    const int runs = options.runs;
    atspi::AtspiAccessibility::prepareProcess();
    test::DesktopSession session;
    if (!session.start(QStringLiteral(PARLUNE_TEST_OPENBOX_RC))) {
        std::fprintf(stderr, "no desktop: %s\n", qPrintable(session.failure()));
        return 1;
    }
    test::DesktopSession::setCurrent(&session);
    QGuiApplication app(argc, argv);

    auto connection = x11::XcbConnection::open();
    x11::EwmhWorkspace workspace(*connection);
    x11::X11Pasteboard pasteboard(*connection);
    x11::XTestKeyboardEvents keyboard(*connection, workspace);
    atspi::AtspiAccessibility accessibilityBus(workspace, [&] { return keyboard.isAvailable(); });
    bench::TimedPipeline pipeline(options, accessibilityBus, workspace, pasteboard, keyboard);
    ClipboardManager& clipboard = pipeline.clipboard;
    TextSelectionReplacer& replacer = pipeline.replacer;
    auto service = x11::XcbHotKeyService::forApplication();
    HotKeyManager hotkeys(*service);

    // The user's clipboard: something of their own for every restore to bring back.
    QProcess::startDetached(
        QStringLiteral("sh"),
        {QStringLiteral("-c"), QStringLiteral("printf 'kept' | xclip -selection clipboard -i")});
    test::pumpFor(300);

    QStringList command{QStringLiteral("mousepad"), QStringLiteral("--disable-server")};
    QString document = QStringLiteral("alpha beta gamma");
    QString fileName = QStringLiteral("document.txt");
    if (target == "featherpad") {
        command = test::featherPadCommand(options.useAccessibility);
    } else if (target == "chromium") {
        command = test::chromiumCommand(session.directory() + QStringLiteral("/chromium-profile"));
        document = QString::fromUtf8(test::fieldsPage);
        fileName = QStringLiteral("fields.html");
    }
    test::EditorWindow editor(workspace, command);
    if (!editor.open(document, fileName)) {
        std::fprintf(stderr, "the editor did not start\n");
        return 1;
    }
    test::pumpFor(target == "mousepad" ? 0 : 1500); // the page or the Qt text view takes focus late

    bench::Stages stats;
    int failures = 0;
    bool running = false;
    QElapsedTimer press;
    QElapsedTimer delivered;
    hotkeys.registerShortcut(HotKeyShortcut::defaultShortcut(), [&] {
        delivered.start();
        stats["press delivered (xdotool -> grab)"].add(since(press));
        spawnTask([&](std::stop_token token) -> QCoro::Task<void> {
            co_await bench::timedRewrite(replacer, stats, press, delivered, failures, token);
            running = false;
        });
    });

    for (int run = 0; run < runs; ++run) {
        editor.select(6, 4);
        test::pumpFor(100);
        running = true;
        press.start();
        if (holdMs > 0) {
            QProcess::startDetached(
                QStringLiteral("sh"),
                {QStringLiteral("-c"), QStringLiteral("xdotool keydown alt+space; sleep %1; "
                                                      "xdotool keyup alt+space")
                                           .arg(holdMs / 1000.0)});
        } else {
            QProcess::startDetached(QStringLiteral("xdotool"),
                                    {QStringLiteral("key"), QStringLiteral("alt+space")});
        }
        test::pumpUntil([&] { return !running && delivered.isValid(); }, 10000);
        delivered.invalidate();
        test::pumpFor(150);
    }

    bench::timeRestores(clipboard, runs, stats);

    std::printf("pipeline overhead, %s, %d runs, %s, shortcut held %d ms, instant model (ms)\n",
                target.c_str(), runs, options.useAccessibility ? "AT-SPI on" : "no accessibility", holdMs);
    bench::printStages(stats);
    std::printf("failed runs: %d\n", failures);
    hotkeys.unregister();
    return failures == 0 ? 0 : 2;
}
