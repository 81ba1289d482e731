#include "app/ApplicationServices.h"

#include "app/AppUpdaterController.h"
#include "app/DesktopUnavailableReplacer.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/hotkeys/HotKeyManager.h"
#include "core/models/ModelScanner.h"
#include "core/models/ModelStorePlaces.h"
#include "core/pipeline/RewriteCoordinator.h"
#include "core/platform/HotKeyService.h"
#include "core/platform/Pasteboard.h"
#include "core/platform/PlatformTerms.h"
#include "core/selection/AccessibilityPermission.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextSelectionReplacer.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"
#include "core/shell/WorkflowTest.h"
#include "inference/LlmModelFileInspector.h"
#include "inference/ModelLocator.h"
#include "inference/OnDeviceEngine.h"
#include "platform/linux/AutostartEntry.h"
#include "platform/linux/DesktopPorts.h"
#include "platform/linux/LinuxMemoryPressureSource.h"
#include "platform/linux/LinuxSession.h"
#include "platform/linux/QSettingsUserDefaults.h"
#include "platform/linux/SecretServiceCredentialStore.h"
#include "platform/linux/portal/PortalRemoteDesktopKeyboard.h"
#include "platform/wayland/WaylandDesktop.h"
#include "platform/x11/X11Desktop.h"
#include "platform/x11/X11KeyTable.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

namespace parlune::app {

ApplicationServices::ApplicationServices(Options options) {
    // 1. settings
    userDefaults_ = options.settingsPath.isEmpty()
                        ? std::make_unique<QSettingsUserDefaults>()
                        : std::make_unique<QSettingsUserDefaults>(options.settingsPath);
    credentials_ = std::make_unique<SecretServiceCredentialStore>();
    settings_ = std::make_unique<SettingsStore>(*userDefaults_, *credentials_, true);
    // 2. diagnostics
    diagnostics_ = std::make_unique<DiagnosticsLogger>();
    // 3. desktop ports
    MemoryPressureSource* memoryPressure = nullptr;
    if (options.useDesktop) {
        connectDesktop(options);
        if (desktop_) {
            memoryPressure = &desktop_->memoryPressure();
        }
    } else {
        desktopProblem_ = QStringLiteral("Parlune was started without access to the desktop.");
    }
    if (!memoryPressure) {
        standaloneMemoryPressure_ = std::make_unique<LinuxMemoryPressureSource>();
        memoryPressure = standaloneMemoryPressure_.get();
    }
    // 4. engine
    SettingsStore* settings = settings_.get();
    engine_ = std::make_unique<OnDeviceEngine>(OnDeviceEngine::Options{
        .settingModelPath = [settings] { return settings->localModelPath(); },
        .memoryPressure = memoryPressure,
    });
    rewriteEngine_ = options.rewriteEngineForTesting ? options.rewriteEngineForTesting
                                                     : std::shared_ptr<LocalRewriteEngine>(engine_->client());
    // 5. selection
    std::shared_ptr<SelectionReplacing> replacer;
    if (desktop_) {
        clipboard_ = std::make_unique<ClipboardManager>(desktop_->pasteboard());
        // Terminals the user named in the settings file join the shipped list.
        replacer_ = std::make_shared<TextSelectionReplacer>(
            desktop_->accessibility(), desktop_->workspace(), *clipboard_, desktop_->keyboard(),
            AppCompatibilityRegistry({}, AppCompatibilityRegistry::terminalsFromSettings(*userDefaults_)),
            SystemClock::shared());
        // Terminals such as xterm keep their selection only in PRIMARY.
        replacer_->setPrimarySelection(desktop_->primarySelection());
        replacer = replacer_;
        accessibilityPermission_ = std::make_unique<AccessibilityPermission>(
            desktop_->accessibility(), desktop_->workspace(), PlatformTerms::current());
    } else {
        replacer = std::make_shared<DesktopUnavailableReplacer>();
    }
    // 6. readiness
    AccessibilityPermission* permission = accessibilityPermission_.get();
    readiness_ = std::make_unique<AppReadiness>(
        *rewriteEngine_, [permission] { return permission && permission->isTrusted(); });
    // 7. pipeline
    if (desktop_) {
        coordinator_ = std::make_unique<RewriteCoordinator>(*settings_, rewriteEngine_, replacer,
                                                            *diagnostics_, SystemClock::shared());
        if (HotKeyService* hotKeys = desktop_->hotKeys()) {
            hotKeyManager_ = std::make_unique<HotKeyManager>(*hotKeys);
        }
    }
    workflowTest_ = std::make_unique<WorkflowTest>(*settings_, *rewriteEngine_, *replacer, *diagnostics_,
                                                   *readiness_, [this] { requestAccessibility(); });
    // The workflow test keeps a reference; the replacer lives as long as this object.
    if (!replacer_) {
        unavailableReplacer_ = std::move(replacer);
    }
    // 8. updates and start at login
    updater_ = std::make_unique<AppUpdaterController>(UpdateConfiguration::production(),
                                                      UpdateBuildMetadata::ofThisBuild(), options.version);
    autostart_ = std::make_unique<AutostartEntry>(options.executable);
    modelScanner_ = std::make_unique<ModelScanner>(std::make_shared<LlmModelFileInspector>(),
                                                   ModelStorePlaces::fromSystemEnvironment());
    ModelCatalogue::Result catalogue = ModelCatalogue::load(ModelCatalogue::installedPath());
    catalogue_ = std::move(catalogue.entries);
    catalogueProblem_ = std::move(catalogue.problem);
}

void ApplicationServices::connectDesktop(Options& options) {
    const LinuxSession::Kind session = LinuxSession::detectFromEnvironment();
    if (std::optional<QString> reason = LinuxSession::missingDisplayReason(session)) {
        desktopProblem_ = std::move(reason);
        return;
    }
    const auto take = [this](auto connected) {
        if (auto* desktop = std::get_if<0>(&connected)) {
            desktop_ = std::move(*desktop);
        } else {
            desktopProblem_ = std::get<QString>(connected);
        }
    };
    if (session == LinuxSession::Kind::x11) {
        take(x11::X11Desktop::connect());
        portalShortcuts_ = nullptr;
        return;
    }
    for (const auto& [portal, reason] : options.waylandPortals.absent) {
        diagnostics_->logEvent(QStringLiteral("portal_probe"), portal + QStringLiteral("_absent"), reason);
    }
    if (!options.waylandCompositor) {
        desktopProblem_ =
            QStringLiteral("Parlune was started without a connection to the Wayland compositor.");
        return;
    }
    auto* connection = std::get_if<0>(&*options.waylandCompositor);
    if (!connection) {
        desktopProblem_ = std::get<QString>(*options.waylandCompositor);
        diagnostics_->logEvent(QStringLiteral("compositor_connect"), QStringLiteral("failed"));
        return;
    }
    take(wayland::WaylandDesktop::connect(std::move(*connection),
                                          waylandOptions(std::move(options.waylandPortals))));
}

wayland::WaylandDesktop::Options ApplicationServices::waylandOptions(WaylandPortals portals) {
    wayland::WaylandDesktop::Options ports;
    portalShortcuts_ = portals.shortcuts.get();
    ports.portalShortcuts = std::move(portals.shortcuts);
    if (portals.keyboardOffered) {
        portal::PortalGlobalShortcuts* shortcuts = portalShortcuts_;
        portal::PortalRemoteDesktopKeyboard::ShortcutHeld held;
        if (shortcuts) {
            // Without the shortcuts portal the key comes from a bound command, whose release
            // nothing reports.
            held = [shortcuts] { return shortcuts->isHeld(); };
        }
        ports.portalKeyboard = [this, held](Workspace& workspace) {
            return std::make_unique<portal::PortalRemoteDesktopKeyboard>(
                QDBusConnection::sessionBus(), workspace, *userDefaults_, &x11::X11KeyTable::keysymFor, held);
        };
    }
    return ports;
}

void ApplicationServices::setHotKeyChosenByDesktopHandler(
    std::function<void(const HotKeyShortcut&)> handler) {
    if (desktop_ && portalShortcuts_) {
        portalShortcuts_->setTriggerChangedHandler(
            [handler = std::move(handler)](const QString& description) {
                if (const std::optional<HotKeyShortcut> chosen = portal::PortalGlobalShortcuts::shortcutFor(
                        description, &x11::X11KeyTable::macKeyCodeFor)) {
                    handler(*chosen);
                }
            });
    }
}

void ApplicationServices::setHotKeyRefusalHandler(std::function<void(std::int32_t)> handler) {
    if (desktop_ && portalShortcuts_) {
        portalShortcuts_->setRefusalHandler(std::move(handler));
    }
}

std::optional<ShortcutPath> ApplicationServices::shortcutPath() const {
    if (!desktop_) {
        return std::nullopt;
    }
    return desktop_->shortcutPath();
}

std::vector<QString> ApplicationServices::desktopLimitations() const {
    return desktop_ ? desktop_->limitations() : std::vector<QString>{};
}

ApplicationServices::~ApplicationServices() {
    shutdown();
    modelScanner_.reset();
    autostart_.reset();
    updater_.reset();
    workflowTest_.reset();
    hotKeyManager_.reset();
    coordinator_.reset();
    readiness_.reset();
    accessibilityPermission_.reset();
    replacer_.reset();
    unavailableReplacer_.reset();
    clipboard_.reset();
    rewriteEngine_.reset();
    engine_.reset();
    standaloneMemoryPressure_.reset();
    desktop_.reset();
    diagnostics_.reset();
    settings_.reset();
    credentials_.reset();
    userDefaults_.reset();
}

QString ApplicationServices::modelFileSummary() {
    if (rewriteEngine_ != std::shared_ptr<LocalRewriteEngine>(engine_->client())) {
        return {}; // rewrites do not go to a model file
    }
    const std::optional<ModelFileReport>& chosen = engine_->framework().chosenModel();
    if (!chosen) {
        return QStringLiteral("No model file was found. Put a GGUF model in %1, or set PARLUNE_MODEL.")
            .arg(QString::fromStdString(ModelLocator::defaultModelsFolder().string()));
    }
    const QString file = QString::fromStdString(chosen->path.filename().string());
    if (!chosen->usable()) {
        return file + QStringLiteral(": ") + QString::fromStdString(chosen->problem);
    }
    return QStringLiteral("Model: %1 (%2)").arg(QString::fromStdString(chosen->name), file);
}

bool ApplicationServices::requestAccessibility() {
    if (!accessibilityPermission_) {
        return false;
    }
    accessibilityPermission_->requestAndOpenSettings([this] { readiness_->refreshSystemChecks(); });
    return true;
}

void ApplicationServices::useModel(const QString& path) {
    settings_->setLocalModelPath(path);
    engine_->framework().reconsiderModel();
    engine_->client()->invalidateWarmup();
    readiness_->refreshSystemChecks();
}

QString ApplicationServices::currentModelPath() {
    const std::optional<ModelFileReport>& chosen = engine_->framework().chosenModel();
    return chosen ? QString::fromStdString(chosen->path.string()) : QString();
}

FieldClipboard ApplicationServices::fieldClipboard() {
    if (!desktop_) {
        return {};
    }
    Pasteboard* pasteboard = &desktop_->pasteboard();
    DesktopPorts* desktop = desktop_.get();
    return FieldClipboard{
        .copy =
            [pasteboard](const QString& text) {
                const QByteArray utf8 = text.toUtf8();
                pasteboard->writeItems(
                    {PasteboardItem{{{pasteboard->plainTextType(), utf8},
                                     {QStringLiteral("text/plain;charset=utf-8"), utf8}}}});
            },
        .ownText = [desktop]() -> std::optional<QString> { return desktop->fetchOwnText(); },
    };
}

void ApplicationServices::setStatusReporter(std::weak_ptr<RewriteStatusReporting> reporter) {
    if (coordinator_) {
        coordinator_->setReporter(std::move(reporter));
    }
}

void ApplicationServices::shutdown(int drainMilliseconds) {
    if (shutDown_) {
        return;
    }
    shutDown_ = true;
    if (hotKeyManager_) {
        hotKeyManager_->unregister();
    }
    // The model stops at its next token, so a rewrite waiting on it ends now with a cancellation.
    engine_->framework().stopAllWork();
    // Destroying the coordinator cancels its captures and its queue's job; their clean-up (the
    // clipboard put back) runs on the event loop, which turns until it is done: a fixed short
    // while ran out on a loaded machine and left the user's clipboard empty.
    coordinator_.reset();
    const QDeadlineTimer deadline(drainMilliseconds);
    do {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
    } while (!deadline.hasExpired() && replacer_ && replacer_->isPasteboardBusy());
    // One more turn for what the last clean-up posted.
    QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
}

} // namespace parlune::app
