#pragma once

#include "core/async/Continuation.h"
#include "core/selection/CapturedSelection.h"
#include "core/selection/SelectionReplacing.h"
#include "core/selection/TextReplacementError.h"

#include <QString>

#include <deque>
#include <exception>
#include <utility>
#include <variant>
#include <vector>

namespace parlune::testing {

// A selection replacer driven by the test: captures answer from a script, or wait until the test
// finishes them (in any order); validation and replacement outcomes are scripted and recorded.
class ScriptedSelectionReplacer final : public SelectionReplacing {
public:
    using CaptureOutcome = std::variant<CapturedSelection, std::exception_ptr>;

    // A selection in a fixed editor; the same text and range give the same deduplication key.
    static CapturedSelection selection(const QString& text, std::int64_t location = 0,
                                       QString bundleIdentifier = QStringLiteral("org.example.Editor")) {
        return CapturedSelection(QUuid::createUuid(), text, std::move(bundleIdentifier), ProcessId{4242},
                                 TextRange{location, text.size()},
                                 SelectionReplacementStrategy::clipboardFallback, nullptr);
    }

    // When false, capture() answers at once from `captures`; when true it waits for finishCapture().
    bool holdCaptures = false;
    std::deque<CaptureOutcome> captures;
    int captureCalls = 0;

    // Validation outcomes in order; none left, or a null entry, means the selection is unchanged.
    std::deque<std::exception_ptr> validationErrors;
    std::vector<QString> validatedTexts;

    std::exception_ptr replaceError;
    std::vector<std::pair<QString, QString>> replacements; // (replacement, captured text)

    QCoro::Task<CapturedSelection> capture(std::stop_token token) override {
        ++captureCalls;
        if (holdCaptures) {
            Continuation<CaptureOutcome> finished;
            heldCaptures_.push_back(finished);
            CaptureOutcome outcome = co_await finished.wait(token);
            co_return unwrap(std::move(outcome));
        }
        if (captures.empty()) {
            throw TextReplacementError(TextReplacementError::Kind::noSelectedText);
        }
        CaptureOutcome outcome = std::move(captures.front());
        captures.pop_front();
        co_return unwrap(std::move(outcome));
    }

    QCoro::Task<void> validate(CapturedSelection selection, std::stop_token) override {
        validatedTexts.push_back(selection.text());
        if (!validationErrors.empty()) {
            std::exception_ptr error = validationErrors.front();
            validationErrors.pop_front();
            if (error) {
                std::rethrow_exception(error);
            }
        }
        co_return;
    }

    QCoro::Task<void> replace(QString replacement, CapturedSelection selection, std::stop_token) override {
        if (replaceError) {
            std::rethrow_exception(replaceError);
        }
        replacements.emplace_back(replacement, selection.text());
        co_return;
    }

    // Finishes the held capture of the `index`-th capture() call (0-based).
    void finishCapture(std::size_t index, CaptureOutcome outcome) {
        heldCaptures_.at(index).resume(std::move(outcome));
    }
    std::size_t heldCaptureCount() const { return heldCaptures_.size(); }

private:
    static CapturedSelection unwrap(CaptureOutcome outcome) {
        if (std::exception_ptr* error = std::get_if<std::exception_ptr>(&outcome)) {
            std::rethrow_exception(*error);
        }
        return std::get<CapturedSelection>(std::move(outcome));
    }

    std::vector<Continuation<CaptureOutcome>> heldCaptures_;
};

} // namespace parlune::testing
