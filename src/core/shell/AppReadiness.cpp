#include "core/shell/AppReadiness.h"

#include "core/async/CancellationError.h"
#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/engine/LocalRewriteEngine.h"

namespace parlune {

namespace {

QString text(std::string_view utf8) {
    return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
}

} // namespace

AppReadiness::AppReadiness(LocalRewriteEngine& engine, std::function<bool()> isAccessibilityTrusted,
                           const PlatformTerms& terms)
    : engine_(engine), isAccessibilityTrusted_(std::move(isAccessibilityTrusted)), terms_(terms) {
    state_.accessibilityReady = isAccessibilityTrusted_();
    state_.modelAvailability = engine_.availability();
}

AppReadiness::~AppReadiness() {
    stop_.request_stop();
}

template <typename Change> void AppReadiness::update(Change change) {
    const State before = state_;
    change(state_);
    if (state_ != before) {
        changed.emit();
    }
}

void AppReadiness::setHotKeyReady(bool ready) {
    update([&](State& state) { state.hotKeyReady = ready; });
}

void AppReadiness::setHotKeyRegistrationError(std::optional<QString> message) {
    update([&](State& state) { state.hotKeyRegistrationError = std::move(message); });
}

bool AppReadiness::modelReady() const {
    return state_.modelAvailability == LocalModelAvailability::available && state_.isModelPrepared &&
           !state_.modelPreparationError;
}

QString AppReadiness::modelStatusMessage() const {
    if (state_.isPreparingModel) {
        return QStringLiteral("Preparing the on-device model…");
    }
    if (state_.modelPreparationError) {
        return *state_.modelPreparationError;
    }
    switch (state_.modelAvailability) {
    case LocalModelAvailability::available:
        return state_.isModelPrepared
                   ? QStringLiteral("The on-device model is ready on ") + text(terms_.thisComputer) + u'.'
                   : QStringLiteral("The on-device model is available; prepare it to continue.");
    case LocalModelAvailability::deviceNotEligible:
        return text(terms_.thisComputerCapitalized) +
               QStringLiteral(" is not eligible for on-device rewriting.");
    case LocalModelAvailability::appleIntelligenceNotEnabled:
        return QStringLiteral("Enable on-device intelligence in ") + text(terms_.systemSettings) + u'.';
    case LocalModelAvailability::modelNotReady:
        break;
    case LocalModelAvailability::unsupportedLocale:
        return QStringLiteral("The current language or locale is not supported by the on-device model.");
    }
    return QStringLiteral("The on-device model is still downloading or preparing.");
}

QString AppReadiness::accessibilityStatusText() const {
    return state_.accessibilityReady ? QStringLiteral("Enabled")
                                     : QStringLiteral("Required to capture and replace selected text.");
}

QString AppReadiness::hotKeyStatusText() const {
    if (state_.hotKeyReady) {
        return QStringLiteral("Registered and ready.");
    }
    return state_.hotKeyRegistrationError.value_or(QStringLiteral("Shortcut registration needs attention."));
}

void AppReadiness::applyRefresh(State& state) {
    state.accessibilityReady = isAccessibilityTrusted_();
    state.modelAvailability = engine_.availability();
    if (state.modelAvailability == LocalModelAvailability::available) {
        return;
    }
    state.isModelPrepared = false;
    state.modelPreparationError.reset();
    if (preparation_) {
        // Superseded: whatever it ends with describes a model that is no longer there.
        ++preparationGeneration_;
        preparation_.reset();
        state.isPreparingModel = false;
    }
}

void AppReadiness::refreshSystemChecks() {
    update([this](State& state) { applyRefresh(state); });
}

QCoro::Task<void> AppReadiness::prepareModel() {
    if (preparation_) {
        co_await waitFor(preparation_);
        co_return;
    }
    refreshSystemChecks();
    if (state_.isPreparingModel) {
        co_return;
    }
    auto preparation = std::make_shared<Preparation>();
    preparation->generation = ++preparationGeneration_;
    preparation_ = preparation;
    update([](State& state) { state.isPreparingModel = true; });
    // Belongs to this object, not to the caller that started it: every caller only waits for it.
    (void)runPreparation(lifetime_.weak(this), engine_, preparation, stop_.get_token());
    co_await waitFor(std::move(preparation));
}

QCoro::Task<void> AppReadiness::runPreparation(WeakRef<AppReadiness> weakSelf, LocalRewriteEngine& engine,
                                               std::shared_ptr<Preparation> preparation,
                                               std::stop_token token) {
    std::exception_ptr error;
    try {
        co_await engine.prepare(token);
    } catch (...) {
        error = std::current_exception();
    }
    if (AppReadiness* self = weakSelf.lock()) {
        self->finishPreparation(preparation, error);
    }
    preparation->finished = true;
    for (Continuation<void>& waiter : std::exchange(preparation->waiters, {})) {
        waiter.resume();
    }
}

void AppReadiness::finishPreparation(const std::shared_ptr<Preparation>& preparation,
                                     const std::exception_ptr& error) {
    if (preparation->generation != preparationGeneration_) {
        return; // a newer preparation owns the state now
    }
    preparation_.reset();
    update([&](State& state) {
        state.isPreparingModel = false;
        if (error) {
            // The engine drops a preparation under memory pressure; that is no failure to show.
            state.isModelPrepared = false;
            if (isCancellation(error)) {
                state.modelPreparationError.reset();
            } else {
                state.modelPreparationError = UserFacingErrorMessage::message(error);
            }
        } else {
            state.isModelPrepared = true;
            state.modelPreparationError.reset();
            state.modelAvailability = engine_.availability();
        }
    });
}

QCoro::Task<void> AppReadiness::waitFor(std::shared_ptr<Preparation> preparation) {
    if (preparation->finished) {
        co_return;
    }
    Continuation<void> ended;
    preparation->waiters.push_back(ended);
    co_await ended.wait();
}

} // namespace parlune
