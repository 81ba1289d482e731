#pragma once

#include "core/async/ChangeSignal.h"
#include "core/async/TaskHandle.h"
#include "core/async/WeakRef.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QMenu;
class QSystemTrayIcon;

namespace parlune {
class DesktopNotifications;
class RewriteStatusReporting;
class ShortcutChangeWatcher;
class ShortcutRegistration;
class SystemTransitionWatcher;
class TransientStatus;
struct StatusMenuItem;
} // namespace parlune

namespace parlune::app {

class ApplicationServices;
class CompactErrorPresenter;
class SettingsWindowController;

// The resident application: the tray item and its menu, the global shortcut kept registered
// across settings changes and system transitions, presses handed to the coordinator, short
// status messages, the model kept warm, and the settings window. Main thread only.
class ParluneApplication {
public:
    static constexpr int warmthIntervalSeconds = 120;

    ParluneApplication(ApplicationServices& services, QString shortVersion);
    ~ParluneApplication();
    ParluneApplication(const ParluneApplication&) = delete;
    ParluneApplication& operator=(const ParluneApplication&) = delete;

    void applicationDidFinishLaunching();
    void applicationDidBecomeActive();
    void applicationWillTerminate();

    void showStatus(const QString& message);
    void registerHotKey(bool reportFailure, bool force);
    void rebuildStatusMenu();

    // Menu actions.
    void selectRewriteMode(const QString& rawValue);
    void showSettings();
    void checkForUpdates();
    void quit();
    // A press of the shortcut, or the same asked for over D-Bus.
    void rewriteSelection();
    // How to bind the rewrite command, where the desktop owns the shortcut; nullopt elsewhere.
    std::optional<QString> boundCommandInstructions() const;
    // Makes `path` the model to use and prepares it.
    void useModel(const QString& path);
    // Runs a short speed test of a model file and calls back with its line.
    void measureSpeed(const QString& path, std::function<void(const QString&)> done);

    bool shouldPresentOnboardingImmediately() const;
    bool shouldShowOnboarding() const;

    QSystemTrayIcon& trayIcon() { return *trayIcon_; }
    QMenu& statusMenu() { return *statusMenu_; }
    SettingsWindowController* settingsWindowIfCreated() { return settingsWindow_.get(); }
    SettingsWindowController& settingsWindow();
    CompactErrorPresenter& errorPresenter() { return *errorPresenter_; }
    const TransientStatus& transientStatus() const { return *status_; }

private:
    void configureStatusItem();
    void configureLifecycleObservers();
    void configureStateObservers();
    void startModelWarmthMaintenance();
    void resumeAfterSystemTransition();
    void fillMenu(QMenu& menu, const std::vector<StatusMenuItem>& items);
    void trigger(const StatusMenuItem& item);

    ApplicationServices& services_;
    QString shortVersion_;
    std::unique_ptr<CompactErrorPresenter> errorPresenter_;
    // Instead of the panel where the session cannot place it.
    std::unique_ptr<DesktopNotifications> notifications_;
    std::unique_ptr<TransientStatus> status_;
    std::shared_ptr<RewriteStatusReporting> reporter_;
    std::unique_ptr<QMenu> statusMenu_;
    std::unique_ptr<QSystemTrayIcon> trayIcon_;
    std::unique_ptr<ShortcutRegistration> shortcutRegistration_;
    std::unique_ptr<ShortcutChangeWatcher> shortcutWatcher_;
    std::unique_ptr<SystemTransitionWatcher> transitions_;
    std::unique_ptr<SettingsWindowController> settingsWindow_;
    std::vector<Subscription> subscriptions_;
    std::vector<QMetaObject::Connection> connections_;
    bool subscribedToDownloads_ = false;
    // Whether `parlune --rewrite-selection` has reached us, which proves the user bound it.
    bool boundCommandArrived_ = false;
    TaskHandle warmth_;
    std::vector<TaskHandle> speedTests_;
    TaskHandle launchPreparation_;
    TaskHandle activePreparation_;
    LifetimeToken lifetime_;
};

} // namespace parlune::app
