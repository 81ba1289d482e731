#pragma once

#include "app/ModelLibraryView.h"
#include "app/WorkflowTestView.h"
#include "core/async/ChangeSignal.h"

#include <QWidget>

#include <functional>
#include <optional>
#include <vector>

namespace parlune {
class AutostartEntry;
class AppReadiness;
class DiagnosticsLogger;
class SettingsStore;
class WorkflowTest;
} // namespace parlune

namespace parlune::app {

class DiagnosticsSectionView;
class PreferencesSectionView;
class SettingsHeaderView;
class SetupSectionView;

// The product's only window, titled "Parlune": readiness and onboarding, the workflow test,
// style and rules, and diagnostics. Created once and reused; every view follows the settings,
// the readiness and the log as they change.
class SettingsWindowController : public QWidget {
public:
    struct Dependencies {
        SettingsStore& settings;
        AppReadiness& readiness;
        DiagnosticsLogger& diagnostics;
        WorkflowTest& workflowTest;
        std::function<void()> requestAccessibility;
        std::function<QString()> modelFileSummary;
        QString versionText;
        AutostartEntry* autostart = nullptr;
        FieldClipboard fieldClipboard;
        std::function<void()> quit;
        std::optional<ModelLibraryView::Dependencies> modelLibrary;
        // Where the user binds the rewrite command in the desktop's settings instead of a shortcut.
        std::optional<QString> boundCommand;
    };

    explicit SettingsWindowController(Dependencies dependencies);
    ~SettingsWindowController() override;

    // Shows the window, or brings it to the front when it is already shown.
    void present();
    void refresh();

    SettingsHeaderView& header() { return *header_; }
    SetupSectionView& setup() { return *setup_; }
    PreferencesSectionView& preferences() { return *preferences_; }
    DiagnosticsSectionView& diagnosticsView() { return *diagnosticsView_; }
    WorkflowTestView& workflowTestView() { return *workflowTest_; }
    // Absent when the window was built without one.
    ModelLibraryView* modelLibrary() { return modelLibrary_; }

protected:
    void hideEvent(QHideEvent* event) override;

private:
    Dependencies dependencies_;
    SettingsHeaderView* header_;
    WorkflowTestView* workflowTest_;
    SetupSectionView* setup_;
    PreferencesSectionView* preferences_;
    DiagnosticsSectionView* diagnosticsView_;
    ModelLibraryView* modelLibrary_ = nullptr;
    std::vector<Subscription> subscriptions_;
};

} // namespace parlune::app
