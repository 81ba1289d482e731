#include "app/SetupSectionView.h"

#include "app/OptionKeyRecorderView.h"
#include "app/Style.h"
#include "app/WorkflowTestView.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/hotkeys/HotKeyFormatter.h"
#include "core/platform/PlatformTerms.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"

#include <QGridLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

namespace parlune::app {

namespace {

QLabel* rowTitle(const QString& text, QWidget* parent) {
    auto* label = new QLabel(text, parent);
    label->setFont(Style::serif(19));
    return label;
}

QLabel* detail(QWidget* parent) {
    auto* label = new QLabel(parent);
    label->setWordWrap(true);
    label->setProperty("role", "detail");
    label->setTextInteractionFlags(Qt::TextSelectableByMouse);
    return label;
}

} // namespace

SetupSectionView::SetupSectionView(SettingsStore& settings, AppReadiness& readiness,
                                   DiagnosticsLogger& diagnostics, std::function<void()> requestAccessibility,
                                   std::function<QString()> modelFileSummary, WorkflowTestView* workflowTest,
                                   std::optional<QString> boundCommand, QWidget* parent)
    : QFrame(parent), settings_(settings), readiness_(readiness), diagnostics_(diagnostics),
      accessibilityDetail_(detail(this)),
      accessibilityAction_(new QPushButton(QStringLiteral("Enable Accessibility…"), this)),
      recorder_(new OptionKeyRecorderView(this)), hotKeyDetail_(detail(this)), modelDetail_(detail(this)),
      modelFile_(detail(this)), modelFileSummary_(std::move(modelFileSummary)),
      boundCommand_(std::move(boundCommand)) {
    Style::makePanel(*this);
    Style::apply(*accessibilityAction_, Style::ButtonStyle::secondary);
    QObject::connect(accessibilityAction_, &QPushButton::clicked, [requestAccessibility] {
        if (requestAccessibility) {
            requestAccessibility();
        }
    });

    recorder_->setOnShortcut([this](const HotKeyShortcut& shortcut) {
        settings_.saveHotKey(shortcut);
        diagnostics_.logEvent(QStringLiteral("hotkey_change"), QStringLiteral("completed"));
    });
    auto* reset = new QPushButton(QStringLiteral("Reset"), this);
    Style::apply(*reset, Style::ButtonStyle::text);
    QObject::connect(reset, &QPushButton::clicked, [this] {
        settings_.saveHotKey(HotKeyShortcut::defaultShortcut());
        diagnostics_.logEvent(QStringLiteral("hotkey_change"), QStringLiteral("completed"));
    });
    auto* optionLabel =
        new QLabel(PlatformTerms::current().optionPrefix().chopped(1) + QStringLiteral(" +"), this);
    optionLabel->setFont(Style::system(14, QFont::Bold));
    auto* hint = new QLabel(QStringLiteral("Click the key box to change the second key."), this);
    hint->setProperty("role", "detail");

    auto* accessibilityRow = new QHBoxLayout;
    accessibilityRow->addWidget(accessibilityDetail_, 1);
    accessibilityRow->addWidget(accessibilityAction_);
    auto* keyRow = new QHBoxLayout;
    keyRow->addWidget(optionLabel);
    keyRow->addWidget(recorder_);
    keyRow->addWidget(reset);
    keyRow->addStretch(1);

    auto* layout = new QVBoxLayout(this);
    layout->setSpacing(6);
    layout->addWidget(rowTitle(QStringLiteral("Accessibility"), this));
    layout->addLayout(accessibilityRow);
    layout->addSpacing(10);
    layout->addWidget(rowTitle(QStringLiteral("Hotkey"), this));
    layout->addLayout(keyRow);
    layout->addWidget(hint);
    layout->addWidget(hotKeyDetail_);
    for (QWidget* keyBox : {static_cast<QWidget*>(optionLabel), static_cast<QWidget*>(recorder_),
                            static_cast<QWidget*>(reset), static_cast<QWidget*>(hint)}) {
        keyBox->setVisible(!boundCommand_);
    }
    layout->addSpacing(10);
    layout->addWidget(rowTitle(QStringLiteral("Model"), this));
    layout->addWidget(modelDetail_);
    layout->addWidget(modelFile_);
    if (workflowTest) {
        layout->addSpacing(10);
        layout->addWidget(workflowTest);
    }
    refresh();
}

void SetupSectionView::refresh() {
    accessibilityDetail_->setText(readiness_.accessibilityStatusText());
    accessibilityAction_->setVisible(!readiness_.accessibilityReady());
    recorder_->setKeyName(HotKeyFormatter::recorderKeyName(settings_.selectedHotKey()));
    if (boundCommand_) {
        hotKeyDetail_->setText(readiness_.hotKeyReady()
                                   ? QStringLiteral("The bound command reaches Parlune. ") + *boundCommand_
                                   : *boundCommand_);
    } else {
        // The key box holds Alt plus one key; a shortcut chosen in the desktop's own settings may
        // be any chord, so its whole name is said here.
        const HotKeyShortcut stored = settings_.selectedHotKey();
        const bool fitsKeyBox = stored.displayName.startsWith(PlatformTerms::current().optionPrefix()) &&
                                stored.carbonModifiers == carbon_modifier::option;
        hotKeyDetail_->setText(
            (fitsKeyBox ? QString() : QStringLiteral("The shortcut is %1. ").arg(stored.displayName)) +
            readiness_.hotKeyStatusText());
    }
    modelDetail_->setText(readiness_.modelStatusMessage());
    const QString file = modelFileSummary_ ? modelFileSummary_() : QString();
    modelFile_->setText(file);
    modelFile_->setVisible(!file.isEmpty());
}

QString SetupSectionView::modelText() const {
    return modelFile_->text().isEmpty() ? modelDetail_->text()
                                        : modelDetail_->text() + u'\n' + modelFile_->text();
}
QString SetupSectionView::hotKeyDetail() const {
    return hotKeyDetail_->text();
}

} // namespace parlune::app
