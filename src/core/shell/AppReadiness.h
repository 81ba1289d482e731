#pragma once

#include "core/async/ChangeSignal.h"
#include "core/async/Continuation.h"
#include "core/async/WeakRef.h"
#include "core/engine/LocalModelAvailability.h"
#include "core/platform/PlatformTerms.h"

#include <QCoro/QCoroTask>
#include <QString>

#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace parlune {

class LocalRewriteEngine;

// Whether the product can work right now: accessibility control granted, shortcut registered, model
// available and prepared, with the sentence shown for each. Model preparation failures end up as
// text here and are never thrown. Main thread only.
class AppReadiness {
public:
    // The engine must outlive this object; `isAccessibilityTrusted` is asked at construction and
    // on every refresh.
    AppReadiness(LocalRewriteEngine& engine, std::function<bool()> isAccessibilityTrusted,
                 const PlatformTerms& terms = PlatformTerms::current());
    ~AppReadiness();
    AppReadiness(const AppReadiness&) = delete;
    AppReadiness& operator=(const AppReadiness&) = delete;

    bool accessibilityReady() const { return state_.accessibilityReady; }
    bool hotKeyReady() const { return state_.hotKeyReady; }
    const std::optional<QString>& hotKeyRegistrationError() const { return state_.hotKeyRegistrationError; }
    LocalModelAvailability modelAvailability() const { return state_.modelAvailability; }
    bool isPreparingModel() const { return state_.isPreparingModel; }
    bool isModelPrepared() const { return state_.isModelPrepared; }
    const std::optional<QString>& modelPreparationError() const { return state_.modelPreparationError; }

    // Written by whoever registers the shortcut, after each attempt.
    void setHotKeyReady(bool ready);
    void setHotKeyRegistrationError(std::optional<QString> message);

    bool modelReady() const;
    // Always a sentence: preparing, the preparation error, or what the availability means.
    QString modelStatusMessage() const;
    QString accessibilityStatusText() const;
    QString hotKeyStatusText() const;
    bool isFullyReady() const { return accessibilityReady() && hotKeyReady() && modelReady(); }

    // Asks the permission and the model again. When the model has gone, a preparation result is
    // stale: it is dropped, and a preparation still running no longer counts.
    void refreshSystemChecks();

    // Prepares the model, or joins the preparation already running; returns once it has ended.
    QCoro::Task<void> prepareModel();

    // Emitted once after every call that changed any value above.
    ChangeSignal<> changed;

private:
    struct State {
        bool accessibilityReady = false;
        bool hotKeyReady = false;
        std::optional<QString> hotKeyRegistrationError;
        LocalModelAvailability modelAvailability = LocalModelAvailability::modelNotReady;
        bool isPreparingModel = false;
        bool isModelPrepared = false;
        std::optional<QString> modelPreparationError;

        friend bool operator==(const State&, const State&) = default;
    };

    // One run of the engine's preparation, shared by every caller that waits for it.
    struct Preparation {
        std::uint64_t generation = 0;
        bool finished = false;
        std::vector<Continuation<void>> waiters;
    };

    template <typename Change> void update(Change change);
    void applyRefresh(State& state);
    void finishPreparation(const std::shared_ptr<Preparation>& preparation, const std::exception_ptr& error);
    static QCoro::Task<void> runPreparation(WeakRef<AppReadiness> weakSelf, LocalRewriteEngine& engine,
                                            std::shared_ptr<Preparation> preparation, std::stop_token token);
    static QCoro::Task<void> waitFor(std::shared_ptr<Preparation> preparation);

    LocalRewriteEngine& engine_;
    std::function<bool()> isAccessibilityTrusted_;
    const PlatformTerms& terms_;
    State state_;
    std::shared_ptr<Preparation> preparation_;
    std::uint64_t preparationGeneration_ = 0;
    std::stop_source stop_;
    LifetimeToken lifetime_;
};

} // namespace parlune
