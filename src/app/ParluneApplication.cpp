#include "app/ParluneApplication.h"

#include "app/AppUpdaterController.h"
#include "app/ApplicationServices.h"
#include "app/CompactErrorPresenter.h"
#include "app/ParluneIcon.h"
#include "app/SettingsWindowController.h"
#include "app/Style.h"
#include "core/async/Sleep.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/engine/OnDeviceModelClient.h"
#include "core/hotkeys/HotKeyManager.h"
#include "core/models/ModelScanner.h"
#include "core/pipeline/RewriteCoordinator.h"
#include "core/pipeline/RewriteStatusReporting.h"
#include "core/selection/AccessibilityPermission.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"
#include "core/shell/ShortcutChangeWatcher.h"
#include "core/shell/ShortcutRegistration.h"
#include "core/shell/StatusMenuModel.h"
#include "core/shell/TransientStatus.h"
#include "inference/ModelLocator.h"
#include "inference/ModelSpeedTest.h"
#include "inference/OnDeviceEngine.h"
#include "platform/linux/DesktopNotifications.h"
#include "platform/linux/SystemTransitionWatcher.h"

#include <QApplication>
#include <QGuiApplication>
#include <QKeySequence>
#include <QMenu>
#include <QMessageBox>
#include <QPalette>
#include <QSystemTrayIcon>

namespace parlune::app {

namespace {

// The coordinator holds its reporter weakly; this forwards to the application while it exists.
class StatusForwarder final : public RewriteStatusReporting {
public:
    explicit StatusForwarder(WeakRef<ParluneApplication> application) : application_(application) {}
    void showStatus(const QString& message) override {
        if (ParluneApplication* application = application_.lock()) {
            application->showStatus(message);
        }
    }

private:
    WeakRef<ParluneApplication> application_;
};

} // namespace

ParluneApplication::ParluneApplication(ApplicationServices& services, QString shortVersion)
    : services_(services), shortVersion_(std::move(shortVersion)),
      errorPresenter_(std::make_unique<CompactErrorPresenter>()) {
    // A Wayland client cannot place a window of its own: there the desktop shows the status.
    if (QGuiApplication::platformName() == QLatin1String("wayland")) {
        notifications_ = std::make_unique<DesktopNotifications>();
    }
    status_ = std::make_unique<TransientStatus>([this](const QString& message) {
        if (message.isEmpty()) {
            return;
        }
        if (notifications_) {
            notifications_->show(message);
        } else {
            errorPresenter_->show(message);
        }
    });
    reporter_ = std::make_shared<StatusForwarder>(lifetime_.weak(this));
    services_.updater().setHooks(AppUpdaterController::Hooks{
        .report =
            [weak = lifetime_.weak(this)](const QString& message) {
                if (ParluneApplication* self = weak.lock()) {
                    self->showStatus(message);
                }
            },
        .confirm =
            [](const QString& question) {
                return QMessageBox::question(nullptr, QStringLiteral("Parlune"), question) ==
                       QMessageBox::Yes;
            },
    });
    services_.setStatusReporter(reporter_);
}

ParluneApplication::~ParluneApplication() {
    applicationWillTerminate();
}

void ParluneApplication::applicationDidFinishLaunching() {
    configureStatusItem();
    configureLifecycleObservers();
    configureStateObservers();
    startModelWarmthMaintenance();
    registerHotKey(true, true);
    const bool presentedAtOnce =
        shouldPresentOnboardingImmediately() || !QSystemTrayIcon::isSystemTrayAvailable();
    if (presentedAtOnce) {
        showSettings();
    }
    launchPreparation_ =
        spawnTask([weak = lifetime_.weak(this), presentedAtOnce](std::stop_token) -> QCoro::Task<void> {
            ParluneApplication* self = weak.lock();
            if (!self) {
                co_return;
            }
            AppReadiness& readiness = self->services_.readiness();
            QCoro::Task<void> preparation = readiness.prepareModel();
            self->rebuildStatusMenu();
            if (!presentedAtOnce && self->shouldShowOnboarding()) {
                self->showSettings();
            }
            co_await std::move(preparation);
            if ((self = weak.lock())) {
                self->rebuildStatusMenu();
            }
        });
}

void ParluneApplication::applicationDidBecomeActive() {
    services_.readiness().refreshSystemChecks();
    activePreparation_ = spawnTask([weak = lifetime_.weak(this)](std::stop_token) -> QCoro::Task<void> {
        if (ParluneApplication* self = weak.lock()) {
            co_await self->services_.readiness().prepareModel();
        }
        if (ParluneApplication* self = weak.lock()) {
            self->rebuildStatusMenu();
        }
    });
}

void ParluneApplication::applicationWillTerminate() {
    warmth_.cancel();
    for (TaskHandle& test : speedTests_) {
        test.cancel();
    }
    launchPreparation_.cancel();
    activePreparation_.cancel();
    for (const QMetaObject::Connection& connection : connections_) {
        QObject::disconnect(connection);
    }
    connections_.clear();
    subscriptions_.clear();
    shortcutWatcher_.reset();
    transitions_.reset();
    errorPresenter_->close();
}

void ParluneApplication::configureStatusItem() {
    statusMenu_ = std::make_unique<QMenu>();
    trayIcon_ = std::make_unique<QSystemTrayIcon>();
    trayIcon_->setIcon(ParluneIcon::menuBarImage(QGuiApplication::palette().color(QPalette::WindowText)));
    trayIcon_->setToolTip(QStringLiteral("Parlune"));
    trayIcon_->setContextMenu(statusMenu_.get());
    // Desktops that open a menu only on the context click still get it on a plain click.
    connections_.push_back(QObject::connect(trayIcon_.get(), &QSystemTrayIcon::activated,
                                            [this](QSystemTrayIcon::ActivationReason reason) {
                                                if (reason == QSystemTrayIcon::Trigger) {
                                                    statusMenu_->popup(QCursor::pos());
                                                }
                                            }));
    rebuildStatusMenu();
    trayIcon_->show();
}

void ParluneApplication::configureLifecycleObservers() {
    transitions_ = std::make_unique<SystemTransitionWatcher>(
        [weak = lifetime_.weak(this)](SystemTransitionWatcher::Transition) {
            if (ParluneApplication* self = weak.lock()) {
                self->resumeAfterSystemTransition();
            }
        });
    connections_.push_back(
        QObject::connect(qApp, &QGuiApplication::applicationStateChanged, [this](Qt::ApplicationState state) {
            if (state == Qt::ApplicationActive) {
                applicationDidBecomeActive();
            }
        }));
}

void ParluneApplication::configureStateObservers() {
    shortcutWatcher_ = std::make_unique<ShortcutChangeWatcher>(services_.settings(), [this] {
        registerHotKey(true, false);
        rebuildStatusMenu();
    });
    subscriptions_.push_back(services_.settings().changed.connect([this](SettingsStore::Field field) {
        if (field == SettingsStore::Field::rewriteMode ||
            field == SettingsStore::Field::hasCompletedTestRewrite) {
            rebuildStatusMenu();
        }
    }));
    subscriptions_.push_back(services_.readiness().changed.connect([this] { rebuildStatusMenu(); }));
}

void ParluneApplication::startModelWarmthMaintenance() {
    warmth_ = spawnTask([weak = lifetime_.weak(this)](std::stop_token token) -> QCoro::Task<void> {
        for (;;) {
            co_await sleepForSeconds(warmthIntervalSeconds, token);
            ParluneApplication* self = weak.lock();
            if (!self) {
                co_return;
            }
            const std::shared_ptr<LocalRewriteEngine> client = self->services_.rewriteEngine();
            if (client->availability() == LocalModelAvailability::available) {
                try {
                    co_await client->prepare(token);
                } catch (const CancellationError&) {
                    throw;
                } catch (...) {
                    // The next rewrite reports what is wrong; warmth is best effort.
                }
            }
        }
    });
}

void ParluneApplication::resumeAfterSystemTransition() {
    registerHotKey(true, true);
    services_.readiness().refreshSystemChecks();
}

void ParluneApplication::registerHotKey(bool reportFailure, bool force) {
    HotKeyManager* hotKeys = services_.hotKeys();
    if (!hotKeys) {
        AppReadiness& readiness = services_.readiness();
        if (std::optional<QString> instructions = boundCommandInstructions()) {
            // Ready once the bound command has been used; until then the window says how to bind it.
            readiness.setHotKeyReady(boundCommandArrived_);
            readiness.setHotKeyRegistrationError(std::move(instructions));
            return;
        }
        readiness.setHotKeyReady(false);
        readiness.setHotKeyRegistrationError(services_.desktopProblem());
        return;
    }
    if (!shortcutRegistration_) {
        shortcutRegistration_ = std::make_unique<ShortcutRegistration>(
            *hotKeys, services_.settings(), services_.readiness(), services_.diagnostics(),
            [weak = lifetime_.weak(this)](const QString& message) {
                if (ParluneApplication* self = weak.lock()) {
                    self->showStatus(message);
                }
            },
            [weak = lifetime_.weak(this)] {
                if (ParluneApplication* self = weak.lock()) {
                    self->rewriteSelection();
                }
            });
        services_.setHotKeyChosenByDesktopHandler(
            [weak = lifetime_.weak(this)](const HotKeyShortcut& chosen) {
                if (ParluneApplication* self = weak.lock()) {
                    self->shortcutRegistration_->adoptDesktopChoice(chosen);
                }
            });
        services_.setHotKeyRefusalHandler([weak = lifetime_.weak(this)](std::int32_t status) {
            if (ParluneApplication* self = weak.lock()) {
                self->shortcutRegistration_->refusedAfterRegistering(status);
            }
        });
    }
    shortcutRegistration_->registerHotKey(reportFailure, force);
}

std::optional<QString> ParluneApplication::boundCommandInstructions() const {
    const std::optional<ShortcutPath> path = services_.shortcutPath();
    if (path && path->kind == ShortcutPath::Kind::boundCommand) {
        return path->instructions;
    }
    return std::nullopt;
}

void ParluneApplication::rewriteSelection() {
    if (boundCommandInstructions() && !boundCommandArrived_) {
        boundCommandArrived_ = true;
        services_.readiness().setHotKeyReady(true);
    }
    if (RewriteCoordinator* coordinator = services_.coordinator()) {
        coordinator->submitRewriteSelection();
    } else if (services_.desktopProblem()) {
        showStatus(*services_.desktopProblem());
    }
}

void ParluneApplication::showStatus(const QString& message) {
    status_->show(message);
    if (trayIcon_) {
        trayIcon_->setToolTip(status_->toolTip());
    }
}

void ParluneApplication::rebuildStatusMenu() {
    if (!statusMenu_) {
        return;
    }
    trayIcon_->setToolTip(status_->toolTip());
    AppUpdaterController& updater = services_.updater();
    statusMenu_->clear();
    fillMenu(*statusMenu_, StatusMenuModel::build(services_.settings().rewriteMode(), updater.hasUpdater(),
                                                  updater.canCheckForUpdates()));
}

void ParluneApplication::fillMenu(QMenu& menu, const std::vector<StatusMenuItem>& items) {
    for (const StatusMenuItem& item : items) {
        switch (item.kind) {
        case StatusMenuItem::Kind::separator:
            menu.addSeparator();
            break;
        case StatusMenuItem::Kind::submenu: {
            QMenu* submenu = menu.addMenu(item.title);
            submenu->setTitle(item.title);
            fillMenu(*submenu, item.children);
            break;
        }
        case StatusMenuItem::Kind::action: {
            QAction* action = menu.addAction(item.title);
            action->setEnabled(item.enabled);
            if (item.checked || item.actionId == QLatin1String("selectRewriteMode")) {
                action->setCheckable(true);
                action->setChecked(item.checked);
            }
            if (!item.keyEquivalent.isEmpty()) {
                action->setShortcut(QKeySequence(QStringLiteral("Ctrl+") + item.keyEquivalent.toUpper()));
                action->setShortcutVisibleInContextMenu(true);
            }
            QObject::connect(action, &QAction::triggered, [this, item] { trigger(item); });
            break;
        }
        }
    }
}

void ParluneApplication::trigger(const StatusMenuItem& item) {
    if (item.actionId == QLatin1String("selectRewriteMode")) {
        selectRewriteMode(item.representedValue);
    } else if (item.actionId == QLatin1String("showSettings")) {
        showSettings();
    } else if (item.actionId == QLatin1String("checkForUpdates")) {
        checkForUpdates();
    } else if (item.actionId == QLatin1String("quit")) {
        quit();
    }
}

void ParluneApplication::selectRewriteMode(const QString& rawValue) {
    const std::optional<RewriteMode> mode = rewrite_mode::fromRawValue(rawValue.toStdString());
    if (!mode) {
        return;
    }
    services_.settings().setRewriteMode(*mode);
    services_.diagnostics().logEvent(QStringLiteral("mode_change"), QStringLiteral("completed"));
}

SettingsWindowController& ParluneApplication::settingsWindow() {
    if (!settingsWindow_) {
        settingsWindow_ = std::make_unique<SettingsWindowController>(SettingsWindowController::Dependencies{
            .settings = services_.settings(),
            .readiness = services_.readiness(),
            .diagnostics = services_.diagnostics(),
            .workflowTest = services_.workflowTest(),
            .requestAccessibility =
                [this] {
                    if (!services_.requestAccessibility() && services_.desktopProblem()) {
                        // No desktop ports at all: no setting can help, so say what is missing.
                        showStatus(*services_.desktopProblem());
                    }
                },
            .modelFileSummary =
                [this] {
                    ModelLibraryView* library = settingsWindow_ ? settingsWindow_->modelLibrary() : nullptr;
                    const QString download = library ? library->downloadSummary() : QString();
                    return download.isEmpty() ? services_.modelFileSummary() : download;
                },
            .versionText = AppUpdaterController::versionText(shortVersion_),
            .autostart = &services_.autostart(),
            .fieldClipboard = services_.fieldClipboard(),
            .quit = [this] { quit(); },
            .modelLibrary =
                ModelLibraryView::Dependencies{
                    .scanner = services_.modelScanner(),
                    .catalogue = services_.catalogue(),
                    .catalogueProblem = services_.catalogueProblem(),
                    .modelsFolder = QString::fromStdString(ModelLocator::defaultModelsFolder().string()),
                    .currentModelPath = [this] { return services_.currentModelPath(); },
                    .useModel = [this](const QString& path) { useModel(path); },
                    .measureSpeed =
                        [this](const QString& path, std::function<void(const QString&)> done) {
                            measureSpeed(path, std::move(done));
                        },
                },
            .boundCommand = boundCommandInstructions(),
        });
    }
    return *settingsWindow_;
}

void ParluneApplication::showSettings() {
    SettingsWindowController& window = settingsWindow();
    window.present();
    if (!subscribedToDownloads_ && window.modelLibrary()) {
        subscribedToDownloads_ = true;
        services_.modelScanner().rescan();
        subscriptions_.push_back(window.modelLibrary()->downloadChanged.connect([this] {
            // The tray says how a download goes while it runs; the model row says it as well.
            const QString summary = settingsWindow_->modelLibrary()->downloadSummary();
            trayIcon_->setToolTip(summary.isEmpty() ? status_->toolTip() : summary);
            settingsWindow_->refresh();
        }));
    }
}

void ParluneApplication::measureSpeed(const QString& path, std::function<void(const QString&)> done) {
    speedTests_.push_back(spawnTask([weak = lifetime_.weak(this), path,
                                     done = std::move(done)](std::stop_token token) -> QCoro::Task<void> {
        QString line;
        try {
            line = ModelSpeedTest::describe(co_await ModelSpeedTest::measure(path, token));
        } catch (const CancellationError&) {
            throw;
        } catch (...) {
            const std::exception_ptr error = std::current_exception();
            const QString detail = UserFacingErrorMessage::detail(error);
            line = UserFacingErrorMessage::message(error) + (detail.isEmpty() ? QString() : u' ' + detail);
        }
        if (weak.lock()) {
            done(line);
        }
    }));
}

void ParluneApplication::useModel(const QString& path) {
    services_.useModel(path);
    activePreparation_ = spawnTask([weak = lifetime_.weak(this)](std::stop_token) -> QCoro::Task<void> {
        if (ParluneApplication* self = weak.lock()) {
            co_await self->services_.readiness().prepareModel();
        }
        if (ParluneApplication* self = weak.lock()) {
            self->rebuildStatusMenu();
        }
    });
}

void ParluneApplication::checkForUpdates() {
    AppUpdaterController& updater = services_.updater();
    if (updater.hasUpdater() && !updater.canCheckForUpdates()) {
        showStatus(QStringLiteral("An update check is already in progress."));
        return;
    }
    if (!updater.checkForUpdates()) {
        showStatus(QStringLiteral("Could not open the update page. Visit ") +
                   updater.service().manualUpdateURL().toString() + QStringLiteral("."));
    }
}

void ParluneApplication::quit() {
    QApplication::quit();
}

bool ParluneApplication::shouldPresentOnboardingImmediately() const {
    const AppReadiness& readiness = services_.readiness();
    return !readiness.accessibilityReady() || !readiness.hotKeyReady() || readiness.isPreparingModel() ||
           !services_.settings().hasCompletedTestRewrite();
}

bool ParluneApplication::shouldShowOnboarding() const {
    const AppReadiness& readiness = services_.readiness();
    return !readiness.accessibilityReady() || !readiness.hotKeyReady() || !readiness.modelReady() ||
           !services_.settings().hasCompletedTestRewrite();
}

} // namespace parlune::app
