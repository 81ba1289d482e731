#pragma once

#include "NoAccessibilityBus.h"
#include "core/async/Clock.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextSelectionReplacer.h"
#include "support/RunTask.h"

#include <QCoro/QCoroTask>
#include <QElapsedTimer>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace parlune::bench {

// Samples of one stage, in milliseconds.
struct Stat {
    std::vector<double> samples;
    void add(double ms) { samples.push_back(ms); }
    double quantile(double q) const {
        std::vector<double> sorted = samples;
        std::sort(sorted.begin(), sorted.end());
        const auto index = static_cast<std::size_t>(q * static_cast<double>(sorted.size() - 1) + 0.5);
        return sorted[std::min(index, sorted.size() - 1)];
    }
};

inline double since(const QElapsedTimer& timer) {
    return static_cast<double>(timer.nsecsElapsed()) / 1e6;
}

// Prints median and 95th percentile of every stage that has samples.
inline void printStages(const std::map<std::string, Stat>& stats) {
    std::printf("%-40s %8s %8s\n", "stage", "median", "p95");
    for (const auto& [name, stat] : stats) {
        if (!stat.samples.empty()) {
            std::printf("%-40s %8.1f %8.1f\n", name.c_str(), stat.quantile(0.5), stat.quantile(0.95));
        }
    }
}

using Stages = std::map<std::string, Stat>;

// The options every pipeline bench takes: `--runs N` (at least 3) and `--no-accessibility`.
struct RunOptions {
    int runs = 30;
    bool useAccessibility = true;

    // The options of a bench's command line; others are left for the bench.
    static RunOptions parse(int argc, char** argv) {
        RunOptions options;
        for (int i = 1; i < argc; ++i) {
            options.take(i, argc, argv);
        }
        return options;
    }

    // Takes argv[i] (and its value, moving i on) if it is one of these; false otherwise.
    bool take(int& i, int argc, char** argv) {
        const std::string arg = argv[i];
        if (arg == "--runs" && i + 1 < argc) {
            runs = std::max(3, std::atoi(argv[++i]));
        } else if (arg == "--no-accessibility") {
            useAccessibility = false;
        } else {
            return false;
        }
        return true;
    }
};

// What each bench times: the selection replacer over a desktop's ports, reading the selection
// through the accessibility bus or, with --no-accessibility, only through the copy.
struct TimedPipeline {
    TimedPipeline(const RunOptions& options, AccessibilityApi& accessibilityBus, Workspace& workspace,
                  Pasteboard& pasteboard, KeyboardEvents& keyboard)
        : clipboard(pasteboard),
          replacer(options.useAccessibility ? accessibilityBus : noBus, workspace, clipboard, keyboard,
                   AppCompatibilityRegistry::defaultRegistry(), SystemClock::shared()) {}

    test::NoAccessibilityBus noBus;
    ClipboardManager clipboard;
    TextSelectionReplacer replacer;
};

// One rewrite with the instant model (it flips the word's case, so the next run finds a selection
// again), timing each stage; a failed run counts in `failures`.
inline QCoro::Task<void> timedRewrite(TextSelectionReplacer& replacer, Stages& stats,
                                      const QElapsedTimer& press, const QElapsedTimer& delivered,
                                      int& failures, std::stop_token token) {
    try {
        QElapsedTimer step;
        step.start();
        CapturedSelection selection = co_await replacer.capture(token);
        stats["capture"].add(since(step));
        step.restart();
        co_await replacer.validate(selection, token);
        stats["validate"].add(since(step));
        const QString rewritten =
            selection.text() == QStringLiteral("beta") ? QStringLiteral("BETA") : QStringLiteral("beta");
        step.restart();
        co_await replacer.replace(rewritten, selection, token);
        stats["replace (paste, confirm, restore)"].add(since(step));
        stats["shortcut delivered -> replaced"].add(since(delivered));
        stats["key press -> replaced"].add(since(press));
    } catch (const std::exception&) {
        ++failures;
    }
}

// Presses the shortcut `runs` times, each after `select` put the selection back and the editor took
// it, and waits for the rewrite it started: the shortcut's handler starts `delivered` and the
// rewrite clears `running` when done. `press` starts at each press. Returns the runs that never
// finished.
template <typename Select, typename Press>
int pressRuns(int runs, Select select, Press pressShortcut, QElapsedTimer& press, QElapsedTimer& delivered,
              bool& running) {
    int unfinished = 0;
    for (int run = 0; run < runs; ++run) {
        select();
        test::pumpFor(100);
        running = true;
        press.start();
        pressShortcut();
        if (!test::pumpUntil([&] { return !running && delivered.isValid(); }, 15000)) {
            ++unfinished;
        }
        delivered.invalidate();
        test::pumpFor(150);
    }
    return unfinished;
}

// A restore on its own, `runs` times: the snapshot of the user's clipboard put back while we hold ours.
inline void timeRestores(ClipboardManager& clipboard, int runs, Stages& stats) {
    const ClipboardSnapshot user = test::runTask(clipboard.capture());
    for (int run = 0; run < runs; ++run) {
        clipboard.setTransientLocalString(QStringLiteral("transient"));
        QElapsedTimer step;
        step.start();
        clipboard.restore(user, clipboard.changeCount());
        stats["clipboard restore"].add(since(step));
    }
}

} // namespace parlune::bench
