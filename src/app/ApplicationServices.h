#pragma once

#include "app/WaylandPortals.h"
#include "app/WorkflowTestView.h"
#include "core/models/ModelCatalogue.h"
#include "platform/linux/DesktopPorts.h"
#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/WaylandDesktop.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

namespace parlune {
class AccessibilityPermission;
class AppReadiness;
class AutostartEntry;
class ClipboardManager;
class CredentialStore;
class DiagnosticsLogger;
class HotKeyManager;
struct HotKeyShortcut;
class LocalRewriteEngine;
class MemoryPressureSource;
class ModelScanner;
class OnDeviceEngine;
class QSettingsUserDefaults;
class RewriteCoordinator;
class RewriteStatusReporting;
class SelectionReplacing;
class SettingsStore;
class TextSelectionReplacer;
class WorkflowTest;
} // namespace parlune

namespace parlune::app {

class AppUpdaterController;

// The composition root: every long-lived object of the application, created once in dependency
// order and destroyed in reverse.
//
//   1. settings file, credential store, settings store   (nothing below works without them)
//   2. diagnostics log
//   3. desktop ports (X11 or Wayland, by the session), or the sentence saying why there are none
//   4. the on-device engine (model port and client), told about memory pressure
//   5. clipboard manager, selection replacer, accessibility permission   (need the ports)
//   6. readiness (asks the client and the permission)
//   7. rewrite coordinator, hotkey manager, workflow test   (need all of the above)
//   8. update controller, autostart entry
//
// Shutting down first cancels every task and lets the event loop run their clean-up (a paste in
// flight puts the user's clipboard back), then stops the model at its next token instead of
// waiting for a whole answer, and only then releases the ports.
class ApplicationServices {
public:
    struct Options {
        QString settingsPath;   // empty: the standard location
        QString executable;     // for the autostart entry
        QString version;        // this build's version, for update checks
        bool useDesktop = true; // false: no ports, as in a session we cannot serve
        // On Wayland: what the desktop's portals offer, probed before (absent: none is used), and
        // the compositor connection opened before, or why there is none.
        WaylandPortals waylandPortals;
        std::optional<wayland::WaylandConnection::Opened> waylandCompositor;
        // Tests only: rewrites go to this engine instead of the on-device model.
        std::shared_ptr<LocalRewriteEngine> rewriteEngineForTesting;
    };

    explicit ApplicationServices(Options options);
    ~ApplicationServices();
    ApplicationServices(const ApplicationServices&) = delete;
    ApplicationServices& operator=(const ApplicationServices&) = delete;

    SettingsStore& settings() { return *settings_; }
    QSettingsUserDefaults& userDefaults() { return *userDefaults_; }
    DiagnosticsLogger& diagnostics() { return *diagnostics_; }
    OnDeviceEngine& engine() { return *engine_; }
    // What rewrites: the on-device model client.
    const std::shared_ptr<LocalRewriteEngine>& rewriteEngine() const { return rewriteEngine_; }
    AppReadiness& readiness() { return *readiness_; }
    AppUpdaterController& updater() { return *updater_; }
    AutostartEntry& autostart() { return *autostart_; }
    // Model files on this computer, scanned off the main thread; the catalogue of downloads.
    ModelScanner& modelScanner() { return *modelScanner_; }
    const QList<CatalogueEntry>& catalogue() const { return catalogue_; }
    const QString& catalogueProblem() const { return catalogueProblem_; }
    // Asks for accessibility control and opens the desktop's settings for it; false when this
    // session has no desktop ports to ask for.
    bool requestAccessibility();
    // Makes `path` the model rewrites use and prepares it.
    void useModel(const QString& path);
    // The file rewrites use now; empty when there is none.
    QString currentModelPath();
    WorkflowTest& workflowTest() { return *workflowTest_; }

    // Absent when the session offers no ports we can use; `desktopProblem()` then says why.
    RewriteCoordinator* coordinator() { return coordinator_.get(); }
    HotKeyManager* hotKeys() { return hotKeyManager_.get(); }
    AccessibilityPermission* accessibilityPermission() { return accessibilityPermission_.get(); }
    const std::optional<QString>& desktopProblem() const { return desktopProblem_; }
    // How the shortcut reaches the program; nullopt without desktop ports.
    std::optional<ShortcutPath> shortcutPath() const;
    // What works only in part on this desktop, one sentence each.
    std::vector<QString> desktopLimitations() const;

    // Which model file is used, or why none is: a line for the settings window.
    QString modelFileSummary();

    // Copy and paste for the settings window's sample field, through this program's clipboard port.
    FieldClipboard fieldClipboard();

    // Runs when the desktop binds another key to the shortcut (the user chose it in the desktop's
    // settings), with that key as a stored shortcut.
    void setHotKeyChosenByDesktopHandler(std::function<void(const HotKeyShortcut&)> handler);

    // Runs when the desktop refuses the shortcut after accepting it (the shortcuts portal).
    void setHotKeyRefusalHandler(std::function<void(std::int32_t status)> handler);

    void setStatusReporter(std::weak_ptr<RewriteStatusReporting> reporter);

    // Cancels tasks, stops the model and lets their clean-up run until the clipboard is back,
    // for at most `drainMilliseconds` (against a desktop that stopped answering). Safe to call
    // twice; the destructor calls it.
    void shutdown(int drainMilliseconds = 5000);

private:
    void connectDesktop(Options& options);
    wayland::WaylandDesktop::Options waylandOptions(WaylandPortals portals);

    std::unique_ptr<QSettingsUserDefaults> userDefaults_;
    std::unique_ptr<CredentialStore> credentials_;
    std::unique_ptr<SettingsStore> settings_;
    std::unique_ptr<DiagnosticsLogger> diagnostics_;
    std::unique_ptr<DesktopPorts> desktop_;
    portal::PortalGlobalShortcuts* portalShortcuts_ = nullptr; // owned by desktop_
    std::unique_ptr<MemoryPressureSource> standaloneMemoryPressure_;
    std::optional<QString> desktopProblem_;
    std::unique_ptr<OnDeviceEngine> engine_;
    std::shared_ptr<LocalRewriteEngine> rewriteEngine_;
    std::unique_ptr<ClipboardManager> clipboard_;
    std::shared_ptr<TextSelectionReplacer> replacer_;
    std::shared_ptr<SelectionReplacing> unavailableReplacer_;
    std::unique_ptr<AccessibilityPermission> accessibilityPermission_;
    std::unique_ptr<AppReadiness> readiness_;
    std::unique_ptr<RewriteCoordinator> coordinator_;
    std::unique_ptr<HotKeyManager> hotKeyManager_;
    std::unique_ptr<WorkflowTest> workflowTest_;
    std::unique_ptr<AppUpdaterController> updater_;
    std::unique_ptr<AutostartEntry> autostart_;
    std::unique_ptr<ModelScanner> modelScanner_;
    QList<CatalogueEntry> catalogue_;
    QString catalogueProblem_;
    bool shutDown_ = false;
};

} // namespace parlune::app
