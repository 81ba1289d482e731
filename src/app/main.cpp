// parlune: the resident application. `parlune --rewrite-selection` asks the running one to
// rewrite the current selection (for desktops where a global shortcut must be bound in the
// desktop's own keyboard settings).
#include "app/ApplicationServices.h"
#include "app/ParluneApplication.h"
#include "app/ParluneIcon.h"
#include "app/WaylandPortals.h"
#include "core/platform/PlatformTerms.h"
#include "platform/atspi/AtspiAccessibility.h"
#include "platform/linux/LinuxSession.h"
#include "platform/linux/SessionInstance.h"
#include "platform/linux/TerminationSignals.h"

#include <QApplication>
#include <QCoreApplication>
#include <QDBusConnection>

#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>

namespace {

constexpr const char* helpText =
    "Usage: parlune [OPTION]\n\n"
    "Parlune rewrites the text you select in any application with a language model that runs on\n"
    "this computer. Select text, press the shortcut (Alt+Space by default), and the rewrite takes\n"
    "its place. Started without options, it stays in the tray; a second start opens its settings.\n\n"
    "Options:\n"
    "  --rewrite-selection   ask the running Parlune to rewrite the current selection\n"
    "                        (bind this command to a key in your desktop's keyboard settings)\n"
    "  --settings            open the settings window of the running Parlune (or start it)\n"
    "  --version             show the version\n"
    "  --help                show this help\n";

int callRunning(int argc, char** argv, const char* method) {
    QCoreApplication app(argc, argv);
    const QString problem = parlune::SessionInstance::callRunningInstance(QString::fromLatin1(method));
    if (!problem.isEmpty()) {
        std::fprintf(stderr, "parlune: %s\n", qPrintable(problem));
        return 1;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::fputs(helpText, stdout);
            return 0;
        }
        if (std::strcmp(argv[i], "--version") == 0) {
            std::printf("parlune %s\n", PARLUNE_VERSION);
            return 0;
        }
        if (std::strcmp(argv[i], "--rewrite-selection") == 0) {
            return callRunning(argc, argv, "RewriteSelection");
        }
        if (std::strcmp(argv[i], "--settings") != 0) {
            std::fprintf(stderr, "parlune: unknown option '%s' (see parlune --help)\n", argv[i]);
            return 2;
        }
    }

    // Before Qt starts its event loop: accessibility runs on a thread of its own.
    parlune::atspi::AtspiAccessibility::prepareProcess();
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("parlune"));
    QApplication::setApplicationDisplayName(QStringLiteral("Parlune"));
    QApplication::setOrganizationName(QStringLiteral("parlune"));
    QApplication::setApplicationVersion(QStringLiteral(PARLUNE_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("parlune"));
    QApplication::setWindowIcon(parlune::app::ParluneIcon::applicationIcon());
    // A resident utility: closing the settings window leaves it in the tray.
    QApplication::setQuitOnLastWindowClosed(false);

    parlune::SessionInstance instance;
    parlune::app::ParluneApplication* controller = nullptr;
    const parlune::SessionInstance::Claim claim = instance.claim({
        .showSettings =
            [&controller] {
                if (controller)
                    controller->showSettings();
            },
        .rewriteSelection =
            [&controller] {
                if (controller)
                    controller->rewriteSelection();
            },
    });
    if (claim == parlune::SessionInstance::Claim::alreadyRunning) {
        const QString problem = parlune::SessionInstance::callRunningInstance(QStringLiteral("ShowSettings"));
        if (!problem.isEmpty()) {
            std::fprintf(stderr, "parlune: %s\n", qPrintable(problem));
            return 1;
        }
        return 0;
    }

    parlune::TerminationSignals termination([] { QApplication::quit(); });
    std::unique_ptr<parlune::app::ApplicationServices> services;
    std::unique_ptr<parlune::app::ParluneApplication> application;
    const auto launch = [&](parlune::app::WaylandPortals portals,
                            std::optional<parlune::wayland::WaylandConnection::Opened> compositor) {
        services = std::make_unique<parlune::app::ApplicationServices>(
            parlune::app::ApplicationServices::Options{.executable = QCoreApplication::applicationFilePath(),
                                                       .version = QStringLiteral(PARLUNE_VERSION),
                                                       .waylandPortals = std::move(portals),
                                                       .waylandCompositor = std::move(compositor)});
        application =
            std::make_unique<parlune::app::ParluneApplication>(*services, QStringLiteral(PARLUNE_VERSION));
        controller = application.get();
        application->applicationDidFinishLaunching();
    };
    // On Wayland the ports depend on the desktop's portals and the compositor's globals, both asked
    // at once while the event loop runs; each gives up after a few seconds.
    const auto probeThenLaunch = [&]() -> QCoro::Task<void> {
        QCoro::Task<parlune::wayland::WaylandConnection::Opened> compositor =
            parlune::wayland::WaylandConnection::open();
        parlune::app::WaylandPortals portals =
            co_await parlune::app::WaylandPortals::probe(QDBusConnection::sessionBus());
        launch(std::move(portals), co_await std::move(compositor));
    };
    std::optional<QCoro::Task<void>> probing;
    if (parlune::LinuxSession::detectFromEnvironment() == parlune::LinuxSession::Kind::wayland) {
        parlune::PlatformTerms::select(parlune::PlatformTerms::waylandLinux());
        probing.emplace(probeThenLaunch());
    } else {
        launch({}, std::nullopt);
    }
    const int status = QApplication::exec();
    controller = nullptr;
    if (application) {
        application->applicationWillTerminate();
        services->shutdown();
    }
    application.reset();
    services.reset();
    return status;
}
