#pragma once

#include <QRegularExpression>
#include <QString>

#include <optional>

namespace parlune {

// Checks and tidies what the model answered, before anything reaches the user's text.
class RewriteOutputValidator {
public:
    RewriteOutputValidator() = delete;

    // `output` trimmed, without a wrapper tag pair the model sometimes echoes. A tag is removed only
    // when `source` did not itself begin with it, so the user's own markup survives.
    static QString cleanedRewrite(const QString& output, const QString& source);

    // 0 Task, 1 Audience and focus, 2 Requirements, 3 Output format; in any letter case and any
    // spacing between words. None for anything else.
    static std::optional<int> improvedPromptLabelIndex(const QString& label);

    // The "Improve prompt" answer rebuilt as four plain lines "Task: ...", "Audience and focus: ...",
    // "Requirements: ...", "Output format: ...". Throws LocalRewriteEngineError generationFailed when
    // the four labels are not each present once and in order, emptyRewrite when one has no content.
    static QString validatedImprovedPrompt(const QString& output, const QString& source);

    // A label at a line start (after indentation, a quote mark, one bullet or number, a heading
    // mark) or after white space, optionally in bold, followed by a colon. Group 1 is the label.
    // Compiled once per process.
    static const QRegularExpression& improvedPromptLabelPattern();
};

} // namespace parlune
