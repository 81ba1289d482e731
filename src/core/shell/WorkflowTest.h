#pragma once

#include "core/async/ChangeSignal.h"
#include "core/async/Clock.h"
#include "core/async/WeakRef.h"
#include "core/platform/PlatformTerms.h"
#include "core/shell/WorkflowTestTarget.h"

#include <QCoro/QCoroTask>
#include <QString>

#include <chrono>
#include <functional>
#include <stop_token>

namespace parlune {

class AppReadiness;
class DiagnosticsLogger;
class LocalRewriteEngine;
class SelectionReplacing;
class SettingsStore;

// Runs the whole rewrite path once on a sample in the settings window's own field: capture, rewrite
// on the device, check that something changed, replace. Passing it completes setup. Never throws:
// every end leaves a message and clears the running flag. Main thread only.
class WorkflowTest {
public:
    // How long the freshly selected sample is given to settle before it is captured.
    static constexpr std::chrono::milliseconds settleDelay{120};

    // Everything referenced must outlive this object. `requestAccessibility` asks the desktop for
    // accessibility control (a prompt or its settings page).
    WorkflowTest(SettingsStore& settings, LocalRewriteEngine& engine, SelectionReplacing& replacer,
                 DiagnosticsLogger& diagnostics, AppReadiness& readiness,
                 std::function<void()> requestAccessibility, const Clock& clock = SystemClock::shared());
    ~WorkflowTest();
    WorkflowTest(const WorkflowTest&) = delete;
    WorkflowTest& operator=(const WorkflowTest&) = delete;

    // One press of the test button. Returns at once when a run is already in progress. Stopping
    // `token`, or destroying this object, cancels the run.
    QCoro::Task<void> run(QString sample, WorkflowTestTarget& target, std::stop_token token = {});

    bool isRunning() const { return running_; }
    // The last run's outcome sentence; empty before the first run.
    const QString& message() const { return message_; }
    // Whether the last run rewrote the sample in place.
    bool passed() const { return passed_; }

    QString buttonTitle() const;
    static QString explanation(const PlatformTerms& terms = PlatformTerms::current());

    // Emitted when the state above changes, and when readiness changes (the button title follows it).
    ChangeSignal<> changed;

private:
    static QCoro::Task<void> execute(WeakRef<WorkflowTest> weakSelf, QString sample,
                                     WorkflowTestTarget& target, std::stop_token token);
    void update(bool running, QString message, bool passed);

    SettingsStore& settings_;
    LocalRewriteEngine& engine_;
    SelectionReplacing& replacer_;
    DiagnosticsLogger& diagnostics_;
    AppReadiness& readiness_;
    std::function<void()> requestAccessibility_;
    const Clock& clock_;

    bool running_ = false;
    QString message_;
    bool passed_ = false;
    std::stop_source runStop_;
    Subscription readinessSubscription_;
    LifetimeToken lifetime_;
};

} // namespace parlune
