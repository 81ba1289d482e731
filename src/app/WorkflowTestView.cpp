#include "app/WorkflowTestView.h"

#include "app/Style.h"

#include <QApplication>
#include <QContextMenuEvent>
#include <QKeyEvent>
#include <QLabel>
#include <QMenu>
#include <QPushButton>
#include <QToolButton>
#include <QVBoxLayout>

namespace parlune::app {

WorkflowTestTextView::WorkflowTestTextView(QWidget* parent) : QPlainTextEdit(parent) {
    setAccessibleName(QStringLiteral("Workflow test sample"));
    setTabChangesFocus(true);
    setFixedHeight(72);
}

void WorkflowTestTextView::keyPressEvent(QKeyEvent* event) {
    if (clipboard_.copy && (event == QKeySequence::Copy || event == QKeySequence::Cut)) {
        copySelection(event == QKeySequence::Cut);
        return;
    }
    if (clipboard_.ownText && event == QKeySequence::Paste) {
        pasteText();
        return;
    }
    QPlainTextEdit::keyPressEvent(event);
}

void WorkflowTestTextView::contextMenuEvent(QContextMenuEvent* event) {
    std::unique_ptr<QMenu> menu(createStandardContextMenu(event->pos()));
    for (QAction* action : menu->actions()) {
        const QString name = action->objectName();
        if (name == QLatin1String("edit-copy") || name == QLatin1String("edit-cut") ||
            name == QLatin1String("edit-paste")) {
            action->disconnect();
            QObject::connect(action, &QAction::triggered, this, [this, name] {
                if (name == QLatin1String("edit-paste")) {
                    pasteText();
                } else {
                    copySelection(name == QLatin1String("edit-cut"));
                }
            });
        }
    }
    menu->exec(event->globalPos());
}

void WorkflowTestTextView::copySelection(bool cut) {
    QTextCursor cursor = textCursor();
    if (!cursor.hasSelection()) {
        return;
    }
    // The document's paragraph separators become line feeds, as Qt's own copy does.
    clipboard_.copy(cursor.selectedText().replace(QChar::ParagraphSeparator, QLatin1Char('\n')));
    if (cut && !isReadOnly()) {
        cursor.removeSelectedText();
    }
}

void WorkflowTestTextView::pasteText() {
    if (isReadOnly()) {
        return;
    }
    if (const std::optional<QString> text = clipboard_.ownText ? clipboard_.ownText() : std::nullopt) {
        insertPlainText(*text);
        ensureCursorVisible();
        return;
    }
    paste();
}

bool WorkflowTestFieldTarget::prepareForTest(const QString& text) {
    WorkflowTestTextView* field = field_.data();
    if (!field) {
        return false;
    }
    QWidget* window = field->window();
    window->show();
    window->raise();
    window->activateWindow();
    field->setPlainText(text);
    field->setFocus(Qt::OtherFocusReason);
    field->selectAll();
    field->ensureCursorVisible();
    return window->focusWidget() == field && field->textCursor().hasSelection();
}

WorkflowTestView::WorkflowTestView(WorkflowTest& test, FieldClipboard clipboard, QWidget* parent)
    : QFrame(parent), test_(test), disclosure_(new QToolButton(this)), body_(new QWidget(this)),
      field_(new WorkflowTestTextView(body_)), button_(new QPushButton(body_)),
      explanation_(new QLabel(body_)), message_(new QLabel(body_)) {
    field_->setClipboard(std::move(clipboard));
    target_ = std::make_shared<WorkflowTestFieldTarget>(field_);
    setObjectName(QStringLiteral("workflowTest"));

    disclosure_->setText(QStringLiteral("Workflow test"));
    disclosure_->setFont(Style::serif(19));
    disclosure_->setToolButtonStyle(Qt::ToolButtonTextBesideIcon);
    disclosure_->setAutoRaise(true);
    disclosure_->setStyleSheet(
        QStringLiteral("QToolButton { border: none; background: transparent; padding: 0; }"));
    disclosure_->setCheckable(true);
    disclosure_->setAccessibleName(QStringLiteral("Workflow test"));
    QObject::connect(disclosure_, &QToolButton::toggled, [this](bool expanded) { setExpanded(expanded); });

    field_->setPlainText(WorkflowTestPolicy::introductorySample);
    Style::apply(*button_, Style::ButtonStyle::primary);
    QObject::connect(button_, &QPushButton::clicked, [this] { run(); });
    explanation_->setText(WorkflowTest::explanation());
    explanation_->setWordWrap(true);
    explanation_->setProperty("role", "detail");
    message_->setWordWrap(true);
    message_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    message_->setAccessibleName(QStringLiteral("Workflow test result"));

    auto* bodyLayout = new QVBoxLayout(body_);
    bodyLayout->setContentsMargins(0, 8, 0, 0);
    bodyLayout->addWidget(field_);
    bodyLayout->addWidget(button_, 0, Qt::AlignLeft);
    bodyLayout->addWidget(explanation_);
    bodyLayout->addWidget(message_);
    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(disclosure_, 0, Qt::AlignLeft);
    layout->addWidget(body_);

    subscription_ = test_.changed.connect([this] { refresh(); });
    setExpanded(true);
    refresh();
}

WorkflowTestView::~WorkflowTestView() {
    run_.cancel();
}

void WorkflowTestView::setExpanded(bool expanded) {
    disclosure_->blockSignals(true);
    disclosure_->setChecked(expanded);
    disclosure_->blockSignals(false);
    disclosure_->setArrowType(expanded ? Qt::DownArrow : Qt::RightArrow);
    body_->setVisible(expanded);
}

bool WorkflowTestView::isExpanded() const {
    return body_->isVisibleTo(this);
}

void WorkflowTestView::refresh() {
    button_->setText(test_.buttonTitle());
    button_->setEnabled(!test_.isRunning());
    message_->setText(test_.message());
    message_->setVisible(!test_.message().isEmpty());
}

void WorkflowTestView::run() {
    if (test_.isRunning()) {
        return;
    }
    const QString sample = field_->toPlainText();
    // The test and the target are held by the task itself: closing the window must not pull them
    // from under a run that is still finishing.
    run_ = spawnTask([&test = test_, target = target_, sample](std::stop_token token) -> QCoro::Task<void> {
        co_await test.run(sample, *target, token);
    });
}

} // namespace parlune::app
