#pragma once

#include "core/modes/RewriteMode.h"

#include <QFrame>
#include <QTimer>

class QCheckBox;
class QComboBox;
class QLabel;
class QPlainTextEdit;

namespace parlune {
class AutostartEntry;
class DiagnosticsLogger;
class SettingsStore;
} // namespace parlune

namespace parlune::app {

// "SETTINGS": the rewrite style and the writing rules of the current style, plus starting at
// login. Rules are saved shortly after typing stops and always before the style changes, so
// switching styles loses nothing.
class PreferencesSectionView : public QFrame {
public:
    PreferencesSectionView(SettingsStore& settings, DiagnosticsLogger& diagnostics, AutostartEntry* autostart,
                           QWidget* parent = nullptr);
    ~PreferencesSectionView() override;

    void refresh();
    void saveRules();
    QComboBox& styleChoice() { return *style_; }
    QPlainTextEdit& rulesEditor() { return *rules_; }

private:
    void chooseMode(int index);

    SettingsStore& settings_;
    DiagnosticsLogger& diagnostics_;
    AutostartEntry* autostart_;
    QComboBox* style_;
    QLabel* rulesTitle_;
    QPlainTextEdit* rules_;
    QCheckBox* startAtLogin_ = nullptr;
    RewriteMode editedMode_;
    QTimer saveTimer_;
};

} // namespace parlune::app
