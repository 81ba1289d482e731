#include "core/shell/WorkflowTest.h"

#include "core/async/Sleep.h"
#include "core/diagnostics/DiagnosticsLogger.h"
#include "core/engine/GraphemeCount.h"
#include "core/engine/LocalRewriteEngine.h"
#include "core/selection/CapturedSelection.h"
#include "core/selection/SelectionReplacing.h"
#include "core/settings/SettingsStore.h"
#include "core/shell/AppReadiness.h"
#include "core/shell/WorkflowTestPolicy.h"

#include <optional>

namespace parlune {

namespace {

const QString testStage = QStringLiteral("workflow_test");

} // namespace

WorkflowTest::WorkflowTest(SettingsStore& settings, LocalRewriteEngine& engine, SelectionReplacing& replacer,
                           DiagnosticsLogger& diagnostics, AppReadiness& readiness,
                           std::function<void()> requestAccessibility, const Clock& clock)
    : settings_(settings), engine_(engine), replacer_(replacer), diagnostics_(diagnostics),
      readiness_(readiness), requestAccessibility_(std::move(requestAccessibility)), clock_(clock) {
    readinessSubscription_ = readiness_.changed.connect([this] { changed.emit(); });
}

WorkflowTest::~WorkflowTest() {
    runStop_.request_stop();
}

void WorkflowTest::update(bool running, QString message, bool passed) {
    if (running == running_ && message == message_ && passed == passed_) {
        return;
    }
    running_ = running;
    message_ = std::move(message);
    passed_ = passed;
    changed.emit();
}

QString WorkflowTest::buttonTitle() const {
    if (running_) {
        return QStringLiteral("Testing...");
    }
    if (!readiness_.accessibilityReady()) {
        return QStringLiteral("Enable Accessibility");
    }
    if (readiness_.modelReady()) {
        return QStringLiteral("Run Workflow Test");
    }
    return QStringLiteral("Check On-Device Model");
}

QString WorkflowTest::explanation(const PlatformTerms& terms) {
    return QStringLiteral("This captures, rewrites, verifies, and replaces the selection entirely on ") +
           QString::fromUtf8(terms.thisComputer.data(), static_cast<qsizetype>(terms.thisComputer.size())) +
           u'.';
}

QCoro::Task<void> WorkflowTest::run(QString sample, WorkflowTestTarget& target, std::stop_token token) {
    return execute(lifetime_.weak(this), std::move(sample), target, std::move(token));
}

QCoro::Task<void> WorkflowTest::execute(WeakRef<WorkflowTest> weakSelf, QString sample,
                                        WorkflowTestTarget& target, std::stop_token token) {
    WorkflowTest* self = weakSelf.lock();
    // A press while a run is in progress changes nothing, not even the message.
    if (!self || self->running_) {
        co_return;
    }
    if (sample.isEmpty()) {
        self->update(false, QString::fromUtf8(WorkflowTestPolicy::emptySampleMessage), false);
        co_return;
    }
    if (!self->readiness_.accessibilityReady()) {
        self->requestAccessibility_();
        self->update(false, WorkflowTestPolicy::accessibilityInstruction(), false);
        co_return;
    }
    if (!self->readiness_.modelReady()) {
        self->update(false, self->readiness_.modelStatusMessage(), false);
        self->diagnostics_.logEvent(testStage, QStringLiteral("model_unavailable"));
        co_return;
    }
    // The run stops with the caller's token or with this object, whichever comes first.
    self->runStop_ = std::stop_source();
    std::stop_source stop = self->runStop_;
    const std::stop_callback forwardStop(token, [stop]() mutable { stop.request_stop(); });
    const std::stop_token runToken = stop.get_token();

    const WallTime startedAt = self->clock_.now();
    self->update(true, QString::fromUtf8(WorkflowTestPolicy::runningMessage), false);

    if (!target.prepareForTest(sample)) {
        self->update(false, QString::fromUtf8(WorkflowTestPolicy::targetUnavailableMessage), false);
        self->diagnostics_.logEvent(testStage, QStringLiteral("target_unavailable"));
        co_return;
    }

    std::optional<CapturedSelection> captured;
    QString rewritten;
    std::exception_ptr error;
    try {
        co_await sleepFor(settleDelay, runToken);
        if (!(self = weakSelf.lock())) {
            co_return;
        }
        captured.emplace(co_await self->replacer_.capture(runToken));
        if (!(self = weakSelf.lock())) {
            co_return;
        }
        rewritten = co_await self->engine_.rewrite(
            captured->text(), WorkflowTestPolicy::introductoryMode,
            self->settings_.writingPreferences(WorkflowTestPolicy::introductoryMode), runToken);
        if (!(self = weakSelf.lock())) {
            co_return;
        }
        if (!WorkflowTestPolicy::isByteDifferent(captured->text(), rewritten)) {
            const char* message = self->settings_.hasCompletedTestRewrite()
                                      ? WorkflowTestPolicy::unchangedAfterSetupMessage
                                      : WorkflowTestPolicy::unchangedMessage;
            self->update(false, QString::fromUtf8(message), false);
            self->diagnostics_.logEvent(testStage, QStringLiteral("unchanged"));
            co_return;
        }
        co_await self->replacer_.replace(rewritten, *captured, runToken);
    } catch (...) {
        error = std::current_exception();
    }
    if (!(self = weakSelf.lock())) {
        co_return;
    }
    if (error) {
        self->diagnostics_.logRewrite(RewriteDiagnosticStage::failed,
                                      captured ? captured->applicationBundleIdentifier() : std::nullopt,
                                      captured ? graphemeClusterCount(captured->text()) : 0,
                                      elapsedMilliseconds(startedAt, self->clock_.now()),
                                      WorkflowTestPolicy::workflowErrorCategory(error));
        self->update(false, WorkflowTestPolicy::failureMessage(error), false);
        co_return;
    }
    self->settings_.markTestRewriteCompleted();
    self->update(false, QString::fromUtf8(WorkflowTestPolicy::passedMessage), true);
}

} // namespace parlune
