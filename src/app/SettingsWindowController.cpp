#include "app/SettingsWindowController.h"

#include "app/DiagnosticsSectionView.h"
#include "app/ParluneIcon.h"
#include "app/PreferencesSectionView.h"
#include "app/SettingsHeaderView.h"
#include "app/SetupSectionView.h"
#include "app/Style.h"
#include "app/WorkflowTestView.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"

#include <QScrollArea>
#include <QShortcut>
#include <QVBoxLayout>

namespace parlune::app {

SettingsWindowController::SettingsWindowController(Dependencies dependencies)
    : dependencies_(std::move(dependencies)) {
    setWindowTitle(QStringLiteral("Parlune"));
    setWindowIcon(ParluneIcon::applicationIcon());
    setObjectName(QStringLiteral("settingsWindow"));
    setStyleSheet(Style::styleSheet());

    auto* content = new QWidget;
    content->setObjectName(QStringLiteral("settingsRoot"));
    header_ = new SettingsHeaderView(dependencies_.versionText, content);
    workflowTest_ = new WorkflowTestView(dependencies_.workflowTest, dependencies_.fieldClipboard);
    setup_ = new SetupSectionView(dependencies_.settings, dependencies_.readiness, dependencies_.diagnostics,
                                  dependencies_.requestAccessibility, dependencies_.modelFileSummary,
                                  workflowTest_, dependencies_.boundCommand, content);
    preferences_ = new PreferencesSectionView(dependencies_.settings, dependencies_.diagnostics,
                                              dependencies_.autostart, content);
    diagnosticsView_ = new DiagnosticsSectionView(dependencies_.diagnostics, content);

    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(24, 20, 24, 24);
    column->setSpacing(16);
    column->addWidget(header_);
    column->addWidget(setup_);
    if (dependencies_.modelLibrary) {
        modelLibrary_ = new ModelLibraryView(std::move(*dependencies_.modelLibrary), content);
        dependencies_.modelLibrary.reset();
        column->addWidget(modelLibrary_);
    }
    column->addWidget(preferences_);
    column->addWidget(diagnosticsView_);
    column->addStretch(1);

    auto* scroll = new QScrollArea(this);
    scroll->setWidget(content);
    scroll->setWidgetResizable(true);
    scroll->setFrameShape(QFrame::NoFrame);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(scroll);
    resize(560, 760);

    // The menu bar's keys of a desktop application, for a window that has no menu bar.
    auto* close = new QShortcut(QKeySequence::Close, this);
    QObject::connect(close, &QShortcut::activated, this, [this] { hide(); });
    if (dependencies_.quit) {
        auto* quit = new QShortcut(QKeySequence::Quit, this);
        QObject::connect(quit, &QShortcut::activated, this, [this] { dependencies_.quit(); });
    }

    subscriptions_.push_back(dependencies_.readiness.changed.connect([this] { refresh(); }));
    subscriptions_.push_back(
        dependencies_.settings.changed.connect([this](SettingsStore::Field) { refresh(); }));
    subscriptions_.push_back(
        dependencies_.diagnostics.changed.connect([this] { diagnosticsView_->refresh(); }));
    refresh();
}

SettingsWindowController::~SettingsWindowController() = default;

void SettingsWindowController::refresh() {
    header_->setReady(dependencies_.readiness.isFullyReady());
    setup_->refresh();
    preferences_->refresh();
    workflowTest_->refresh();
    if (modelLibrary_) {
        modelLibrary_->refresh();
    }
}

void SettingsWindowController::present() {
    if (isMinimized()) {
        showNormal();
    }
    show();
    raise();
    activateWindow();
}

void SettingsWindowController::hideEvent(QHideEvent* event) {
    preferences_->saveRules();
    QWidget::hideEvent(event);
}

} // namespace parlune::app
