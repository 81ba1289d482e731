#include "app/PreferencesSectionView.h"

#include "app/ModeTitle.h"
#include "app/Style.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/settings/SettingsStore.h"
#include "platform/linux/AutostartEntry.h"

#include <QCheckBox>
#include <QComboBox>
#include <QLabel>
#include <QPlainTextEdit>
#include <QVBoxLayout>

namespace parlune::app {

namespace {
constexpr int rulesSaveDelayMs = 400;
}

PreferencesSectionView::PreferencesSectionView(SettingsStore& settings, DiagnosticsLogger& diagnostics,
                                               AutostartEntry* autostart, QWidget* parent)
    : QFrame(parent), settings_(settings), diagnostics_(diagnostics), autostart_(autostart),
      style_(new QComboBox(this)), rulesTitle_(new QLabel(this)), rules_(new QPlainTextEdit(this)),
      editedMode_(settings.rewriteMode()) {
    Style::makePanel(*this);
    auto* heading = new QLabel(QStringLiteral("SETTINGS"), this);
    heading->setFont(Style::system(12, QFont::Black));
    auto* styleTitle = new QLabel(QStringLiteral("Style"), this);
    styleTitle->setFont(Style::serif(19));
    for (const RewriteMode mode : rewrite_mode::allCases) {
        style_->addItem(modeTitle(mode));
    }
    style_->setAccessibleName(QStringLiteral("Style"));
    rulesTitle_->setFont(Style::serif(19));
    rules_->setAccessibleName(QStringLiteral("Writing rules"));
    rules_->setTabChangesFocus(true);
    rules_->setMinimumHeight(90);
    auto* note = new QLabel(QStringLiteral("Saved locally for each rewrite mode."), this);
    note->setProperty("role", "detail");

    auto* layout = new QVBoxLayout(this);
    layout->setSpacing(6);
    layout->addWidget(heading);
    layout->addWidget(styleTitle);
    layout->addWidget(style_);
    layout->addSpacing(8);
    layout->addWidget(rulesTitle_);
    layout->addWidget(rules_);
    layout->addWidget(note);
    if (autostart_) {
        startAtLogin_ = new QCheckBox(QStringLiteral("Start Parlune when you log in"), this);
        QObject::connect(startAtLogin_, &QCheckBox::toggled, [this](bool on) {
            if (!autostart_->setEnabled(on)) {
                startAtLogin_->setChecked(autostart_->isEnabled());
            }
        });
        layout->addSpacing(8);
        layout->addWidget(startAtLogin_);
    }

    saveTimer_.setSingleShot(true);
    saveTimer_.setInterval(rulesSaveDelayMs);
    QObject::connect(&saveTimer_, &QTimer::timeout, [this] { saveRules(); });
    QObject::connect(rules_, &QPlainTextEdit::textChanged, [this] { saveTimer_.start(); });
    QObject::connect(style_, &QComboBox::activated, [this](int index) { chooseMode(index); });
    refresh();
}

PreferencesSectionView::~PreferencesSectionView() {
    saveRules();
}

void PreferencesSectionView::saveRules() {
    saveTimer_.stop();
    const QString text = rules_->toPlainText();
    if (text != settings_.writingPreferences(editedMode_)) {
        settings_.setWritingPreferences(text, editedMode_);
    }
}

void PreferencesSectionView::chooseMode(int index) {
    if (index < 0 || index >= static_cast<int>(rewrite_mode::allCases.size())) {
        return;
    }
    saveRules();
    settings_.setRewriteMode(rewrite_mode::allCases[static_cast<std::size_t>(index)]);
    diagnostics_.logEvent(QStringLiteral("mode_change"), QStringLiteral("completed"));
    refresh();
}

void PreferencesSectionView::refresh() {
    const RewriteMode mode = settings_.rewriteMode();
    const auto position = std::find(rewrite_mode::allCases.begin(), rewrite_mode::allCases.end(), mode);
    style_->setCurrentIndex(static_cast<int>(position - rewrite_mode::allCases.begin()));
    if (mode != editedMode_ ||
        (!saveTimer_.isActive() && rules_->toPlainText() != settings_.writingPreferences(mode))) {
        if (mode != editedMode_) {
            saveRules();
        }
        editedMode_ = mode;
        const QSignalBlocker quiet(rules_);
        rules_->setPlainText(settings_.writingPreferences(mode));
    }
    rulesTitle_->setText(QStringLiteral("Rules for ") + modeTitle(mode));
    if (startAtLogin_) {
        const QSignalBlocker quiet(startAtLogin_);
        startAtLogin_->setChecked(autostart_->isEnabled());
    }
}

} // namespace parlune::app
