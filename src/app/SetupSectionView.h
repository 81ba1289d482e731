#pragma once

#include "core/async/ChangeSignal.h"

#include <QFrame>

#include <functional>
#include <optional>

class QLabel;
class QPushButton;

namespace parlune {
class AppReadiness;
class DiagnosticsLogger;
class SettingsStore;
} // namespace parlune

namespace parlune::app {

class OptionKeyRecorderView;
class WorkflowTestView;

// The onboarding rows: accessibility, the shortcut with its second-key box, the model, and the
// workflow test.
class SetupSectionView : public QFrame {
public:
    // `boundCommand`: where the desktop lets no program register the shortcut, how to bind the
    // rewrite command instead; the key box is then hidden, since the desktop owns the keys.
    SetupSectionView(SettingsStore& settings, AppReadiness& readiness, DiagnosticsLogger& diagnostics,
                     std::function<void()> requestAccessibility, std::function<QString()> modelFileSummary,
                     WorkflowTestView* workflowTest, std::optional<QString> boundCommand = std::nullopt,
                     QWidget* parent = nullptr);

    void refresh();
    OptionKeyRecorderView& recorder() { return *recorder_; }
    // The readiness text and, below it, which file the model comes from or why there is none.
    QString modelText() const;
    QString hotKeyDetail() const;

private:
    SettingsStore& settings_;
    AppReadiness& readiness_;
    DiagnosticsLogger& diagnostics_;
    QLabel* accessibilityDetail_;
    QPushButton* accessibilityAction_;
    OptionKeyRecorderView* recorder_;
    QLabel* hotKeyDetail_;
    QLabel* modelDetail_;
    QLabel* modelFile_;
    std::function<QString()> modelFileSummary_;
    std::optional<QString> boundCommand_;
};

} // namespace parlune::app
