// What the resident application costs on a real desktop (private Xvfb + openbox + a tray host):
// time from launch to its tray item, idle CPU and resident memory without a model and with one
// loaded, and whether a rewrite opens any network socket (strace). Run by hand:
//   parlune-bench-app-resources [--model FILE] [--make-model-1.5b FILE] [--idle-seconds N] [--runs N]
// Without --model the "with a model" figures are skipped. --make-model-1.5b writes a random-weight
// Qwen2.5-1.5B-shaped Q4_K_M file (about 1 GB) first and uses it.
#include "DesktopSession.h"
#include "EditorWindow.h"
#include "ParluneProcess.h"
#include "StatusNotifierHost.h"
#include "llm/testing/TestModelMaker.h"
#include "platform/atspi/AtspiAccessibility.h"
#include "platform/x11/EwmhWorkspace.h"
#include "platform/x11/XcbConnection.h"
#include "support/RunTask.h"

#include <QElapsedTimer>
#include <QFile>
#include <QGuiApplication>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <algorithm>
#include <cstdio>
#include <string>
#include <unistd.h>
#include <vector>

using namespace parlune;

namespace {

double cpuSeconds(pid_t pid) {
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QByteArray stat = file.readAll();
    // Fields after the command name (which may hold spaces): utime is the 12th, stime the 13th.
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    return (fields.value(11).toDouble() + fields.value(12).toDouble()) /
           static_cast<double>(sysconf(_SC_CLK_TCK));
}

double residentMiB(pid_t pid) {
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QRegularExpressionMatch match =
        QRegularExpression(QStringLiteral("VmRSS:\\s+(\\d+) kB")).match(QString::fromLatin1(file.readAll()));
    return match.hasMatch() ? match.captured(1).toDouble() / 1024.0 : -1;
}

double idleCpuPercent(pid_t pid, int seconds) {
    const double before = cpuSeconds(pid);
    test::pumpFor(seconds * 1000);
    return 100.0 * (cpuSeconds(pid) - before) / seconds;
}

// Waits until the resident set stops growing (the model's pages read in by the warm-up).
double settledResidentMiB(pid_t pid, int limitSeconds) {
    double last = residentMiB(pid);
    int steady = 0;
    for (int i = 0; i < limitSeconds && steady < 5; ++i) {
        test::pumpFor(1000);
        const double now = residentMiB(pid);
        steady = now - last < 1.0 ? steady + 1 : 0;
        last = now;
    }
    return last;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values.empty() ? -1 : values[values.size() / 2];
}

void writeQwen15bShape(const QString& path) {
    llm::TestModelRecipe recipe = *llm::TestModelRecipe::shape("0.5b", llm::Architecture::qwen2);
    recipe.hiddenSize = 1536;
    recipe.layerCount = 28;
    recipe.headCount = 12;
    recipe.kvHeadCount = 2;
    recipe.feedForwardSize = 8960;
    recipe.weights = *llm::TestWeightScheme::parse("q4_k_m");
    llm::TestModelMaker::write(recipe, path.toStdString());
}

} // namespace

int main(int argc, char** argv) {
    QString model;
    int idleSeconds = 60;
    int runs = 5;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        if (name == "--model") {
            model = QString::fromLocal8Bit(argv[i + 1]);
        } else if (name == "--make-model-1.5b") {
            model = QString::fromLocal8Bit(argv[i + 1]);
            std::printf("writing the 1.5B-shaped Q4_K_M model to %s...\n", argv[i + 1]);
            writeQwen15bShape(model);
        } else if (name == "--idle-seconds") {
            idleSeconds = std::max(5, std::atoi(argv[i + 1]));
        } else if (name == "--runs") {
            runs = std::max(1, std::atoi(argv[i + 1]));
        }
    }

    test::DesktopSession session;
    if (!session.start(QStringLiteral(PARLUNE_TEST_OPENBOX_RC))) {
        std::fprintf(stderr, "no desktop: %s\n", qPrintable(session.failure()));
        return 1;
    }
    test::DesktopSession::setCurrent(&session);
    atspi::AtspiAccessibility::prepareProcess();
    QGuiApplication app(argc, argv);
    test::StatusNotifierHost host;
    if (!host.start()) {
        std::fprintf(stderr, "could not start the tray host\n");
        return 1;
    }
    QTemporaryDir home;

    std::vector<double> launches;
    for (int run = 0; run < runs; ++run) {
        test::ParluneProcess parlune(home, {.binary = QStringLiteral(PARLUNE_BINARY), .noModel = true});
        const qsizetype items = host.items().size();
        QElapsedTimer timer;
        timer.start();
        if (!parlune.start() || !test::pumpUntil([&] { return host.items().size() > items; }, 15000)) {
            std::fprintf(stderr, "parlune did not show its tray item\n%s\n", qPrintable(parlune.log()));
            return 1;
        }
        launches.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        if (run + 1 < runs) {
            parlune.stop();
        } else {
            test::pumpFor(5000);
            const pid_t pid = parlune.applicationPid();
            std::printf("launch -> tray item registered: median %.0f ms of %d\n", median(launches), runs);
            std::printf("no model: resident %.1f MiB, idle CPU %.3f%% over %d s\n", residentMiB(pid),
                        idleCpuPercent(pid, idleSeconds), idleSeconds);
        }
    }

    if (!model.isEmpty()) {
        test::ParluneProcess parlune(home, {.binary = QStringLiteral(PARLUNE_BINARY), .model = model});
        if (!parlune.start()) {
            std::fprintf(stderr, "parlune did not start with the model\n");
            return 1;
        }
        const pid_t pid = parlune.applicationPid();
        const double resident = settledResidentMiB(pid, 180);
        std::printf("model %s loaded and warm: resident %.1f MiB, idle CPU %.3f%% over %d s\n",
                    qPrintable(QFileInfo(model).fileName()), resident, idleCpuPercent(pid, idleSeconds),
                    idleSeconds);
    }

    // A whole rewrite under strace: every socket the program opens is listed.
    const QString trace = home.filePath(QStringLiteral("strace.log"));
    {
        auto connection = x11::XcbConnection::open();
        x11::EwmhWorkspace workspace(*connection);
        test::ParluneProcess parlune(
            home, {.binary = QStringLiteral(PARLUNE_BINARY),
                   .wrapper = {QStringLiteral("strace"), QStringLiteral("-f"), QStringLiteral("-e"),
                               QStringLiteral("trace=socket,connect"), QStringLiteral("-o"), trace}});
        if (!parlune.start() || !parlune.waitForSettingsWindow(workspace)) {
            std::fprintf(stderr, "parlune did not start under strace\n");
            return 1;
        }
        test::EditorWindow editor(workspace);
        editor.open(
            QStringLiteral("Keep this. the meeting moved to next week becaus of travel. Keep this too."));
        test::DesktopSession::run({QStringLiteral("xdotool"), QStringLiteral("search"),
                                   QStringLiteral("--onlyvisible"), QStringLiteral("--name"),
                                   QStringLiteral("^Parlune$"), QStringLiteral("windowminimize")});
        editor.activate();
        editor.select(11, 48);
        test::DesktopSession::run(
            {QStringLiteral("xdotool"), QStringLiteral("key"), QStringLiteral("alt+space")});
        const QString original = editor.savedText();
        test::pumpFor(5000);
        const bool replaced = editor.savedText() != original;
        parlune.stop();
        QFile file(trace);
        file.open(QIODevice::ReadOnly);
        int sockets = 0;
        int internet = 0;
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.contains("socket(")) {
                ++sockets;
                internet += line.contains("AF_INET") ? 1 : 0;
            }
        }
        std::printf("rewrite under strace (%s): %d sockets opened, %d of them AF_INET/AF_INET6\n",
                    replaced ? "selection replaced" : "selection NOT replaced", sockets, internet);
    }
    test::DesktopSession::setCurrent(nullptr);
    return 0;
}
