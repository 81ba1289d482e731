#pragma once

#include "core/async/FirstComeLock.h"
#include "core/async/WeakRef.h"
#include "core/engine/LocalRewriteEngine.h"
#include "core/platform/LanguageModelFramework.h"

#include <QCoro/QCoroTask>

#include <cstdint>
#include <exception>
#include <memory>
#include <stop_token>

namespace parlune {

class MemoryPressureSource;

// The local rewrite engine over the on-device model port: availability, a shared warm-up that
// memory pressure invalidates, and rewrites that run one at a time behind the generation gate,
// each in a fresh session, with the answer cleaned and validated. Main thread only.
class OnDeviceModelClient : public LocalRewriteEngine {
public:
    // Both must outlive the client; `memoryPressure` may be null (no invalidation on pressure).
    OnDeviceModelClient(LanguageModelFramework& framework, MemoryPressureSource* memoryPressure);
    ~OnDeviceModelClient() override;
    OnDeviceModelClient(const OnDeviceModelClient&) = delete;
    OnDeviceModelClient& operator=(const OnDeviceModelClient&) = delete;

    LocalModelAvailability availability() const override;
    QString availabilityDetail() const override;
    // Throws the engine error named like the availability when the model cannot be used now.
    void ensureAvailable() const;
    QCoro::Task<void> prepare(std::stop_token token) override;
    QCoro::Task<QString> rewrite(QString text, RewriteMode mode, QString preferences,
                                 std::stop_token token) override;

    // Forgets the warm-up: a running one ends with CancellationError, a kept session is dropped.
    void invalidateWarmup();

    bool isWarm() const { return static_cast<bool>(warmupSession_); }
    bool isWarming() const { return static_cast<bool>(preparation_); }
    const FirstComeLock& generationGate() const { return generationGate_; }

    // Cancellations and engine errors unchanged; framework errors by kind; anything else
    // generationFailed.
    static std::exception_ptr sanitized(std::exception_ptr error);

private:
    struct Preparation;

    static QCoro::Task<void> runPreparation(std::shared_ptr<Preparation> preparation,
                                            WeakRef<OnDeviceModelClient> owner);
    QCoro::Task<void> join(std::shared_ptr<Preparation> preparation, std::stop_token token);
    QCoro::Task<QString> generate(const QString& text, RewriteMode mode, const QString& preferences,
                                  std::stop_token token);

    LanguageModelFramework& framework_;
    MemoryPressureSource* memoryPressure_;
    FirstComeLock generationGate_;
    std::unique_ptr<LanguageModelSession> warmupSession_;
    std::shared_ptr<Preparation> preparation_;
    std::uint64_t preparationGeneration_ = 0;
    LifetimeToken lifetime_;
};

} // namespace parlune
