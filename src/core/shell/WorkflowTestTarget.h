#pragma once

#include <QString>

namespace parlune {

// The text field the workflow test captures from and replaces in: the settings window's own.
class WorkflowTestTarget {
public:
    virtual ~WorkflowTestTarget() = default;

    // Brings the window to the front, puts `text` in the field, focuses it and selects all of it.
    // True only when the field has keyboard focus with a non-empty selection.
    virtual bool prepareForTest(const QString& text) = 0;
};

} // namespace parlune
