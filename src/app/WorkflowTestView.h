#pragma once

#include "core/async/ChangeSignal.h"
#include "core/async/TaskHandle.h"
#include "core/shell/WorkflowTest.h"
#include "core/shell/WorkflowTestPolicy.h"

#include <QFrame>
#include <QPlainTextEdit>
#include <QPointer>

#include <functional>
#include <memory>
#include <optional>

class QLabel;
class QPushButton;
class QToolButton;

namespace parlune::app {

// How the sample field copies and pastes. Qt's own clipboard would wait on this very process when
// our clipboard port owns the selection (as it does in the middle of a replacement), so the field
// goes through the port: `copy` writes the text, `ownText` answers the text while this program owns
// the clipboard (nullopt otherwise, and Qt's clipboard then reads the other owner's).
struct FieldClipboard {
    std::function<void(const QString&)> copy;
    std::function<std::optional<QString>()> ownText;
};

// The sample field the workflow test captures from and replaces in, like any other editor.
class WorkflowTestTextView : public QPlainTextEdit {
public:
    explicit WorkflowTestTextView(QWidget* parent = nullptr);
    void setClipboard(FieldClipboard clipboard) { clipboard_ = std::move(clipboard); }

protected:
    void keyPressEvent(QKeyEvent* event) override;
    void contextMenuEvent(QContextMenuEvent* event) override;

private:
    void copySelection(bool cut);
    void pasteText();

    FieldClipboard clipboard_;
};

// Puts the sample in the field, brings the window to the front and selects the whole text, so
// the shortcut's own capture finds it there.
class WorkflowTestFieldTarget final : public WorkflowTestTarget {
public:
    explicit WorkflowTestFieldTarget(WorkflowTestTextView* field) : field_(field) {}
    bool prepareForTest(const QString& text) override;

private:
    QPointer<WorkflowTestTextView> field_;
};

// The collapsible workflow-test section of the settings window: sample, button, explanation and
// the last message.
class WorkflowTestView : public QFrame {
public:
    WorkflowTestView(WorkflowTest& test, FieldClipboard clipboard, QWidget* parent = nullptr);
    ~WorkflowTestView() override;

    void refresh();
    void setExpanded(bool expanded);
    bool isExpanded() const;
    WorkflowTestTextView& field() { return *field_; }
    QPushButton& button() { return *button_; }
    // Starts a run as the button does.
    void run();

private:
    WorkflowTest& test_;
    std::shared_ptr<WorkflowTestFieldTarget> target_;
    QToolButton* disclosure_;
    QWidget* body_;
    WorkflowTestTextView* field_;
    QPushButton* button_;
    QLabel* explanation_;
    QLabel* message_;
    TaskHandle run_;
    Subscription subscription_;
};

} // namespace parlune::app
