#pragma once

#include "core/async/Continuation.h"
#include "core/engine/LocalRewriteEngine.h"

#include <QString>

#include <deque>
#include <exception>
#include <functional>
#include <variant>
#include <vector>

namespace parlune::testing {

// An engine whose answers the test scripts in advance. Rewrites may be held until the test lets
// them finish, to observe what runs while a job is in flight.
class ScriptedRewriteEngine final : public LocalRewriteEngine {
public:
    struct Call {
        QString text;
        RewriteMode mode;
        QString preferences;
    };
    using Answer = std::variant<QString, std::exception_ptr>;

    LocalModelAvailability availabilityValue = LocalModelAvailability::available;
    std::exception_ptr prepareError;
    int prepareCalls = 0;
    // When set, each preparation waits for finishPreparation() before ending.
    bool holdPreparations = false;

    // Taken in order; with none left, the answer is the text with " (rewritten)" appended.
    std::deque<Answer> answers;
    std::vector<Call> calls;
    // When set, each rewrite waits for releaseOne() before answering.
    bool holdRewrites = false;
    // Runs as each rewrite starts (to move a test clock, say).
    std::function<void()> duringRewrite;

    LocalModelAvailability availability() const override { return availabilityValue; }

    QCoro::Task<void> prepare(std::stop_token token) override {
        ++prepareCalls;
        if (holdPreparations) {
            Continuation<void> finished;
            heldPreparations_.push_back(finished);
            co_await finished.wait(token);
            co_return;
        }
        if (prepareError) {
            std::rethrow_exception(prepareError);
        }
        co_return;
    }

    QCoro::Task<QString> rewrite(QString text, RewriteMode mode, QString preferences,
                                 std::stop_token token) override {
        calls.push_back(Call{text, mode, preferences});
        if (duringRewrite) {
            duringRewrite();
        }
        if (holdRewrites) {
            Continuation<void> release;
            held_.push_back(release);
            co_await release.wait(token);
        }
        if (answers.empty()) {
            co_return text + QStringLiteral(" (rewritten)");
        }
        Answer answer = std::move(answers.front());
        answers.pop_front();
        if (std::exception_ptr* error = std::get_if<std::exception_ptr>(&answer)) {
            std::rethrow_exception(*error);
        }
        co_return std::get<QString>(answer);
    }

    std::size_t heldCount() const { return held_.size(); }
    void releaseOne() {
        if (!held_.empty()) {
            Continuation<void> next = held_.front();
            held_.pop_front();
            next.resume();
        }
    }

    // Ends the oldest held preparation, with `error` when one is given.
    void finishPreparation(std::exception_ptr error = nullptr) {
        if (heldPreparations_.empty()) {
            return;
        }
        Continuation<void> next = heldPreparations_.front();
        heldPreparations_.pop_front();
        if (error) {
            next.resumeThrowing(std::move(error));
        } else {
            next.resume();
        }
    }

private:
    std::deque<Continuation<void>> held_;
    std::deque<Continuation<void>> heldPreparations_;
};

} // namespace parlune::testing
