#pragma once

#include "core/engine/OnDeviceModelClient.h"
#include "inference/LlmLanguageModelFramework.h"

#include <QString>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace parlune {

class MemoryPressureSource;

// The on-device rewrite engine as every program assembles it: our model port over src/llm and
// the model client on top. The application, the command-line tool and the benchmarks all build it
// here, so they find the same model and measure the same path. Main thread only.
class OnDeviceEngine {
public:
    struct Options {
        // An explicit model file that overrides every other place (the command line's --model).
        std::string explicitModelPath;
        // The settings' model path, read afresh at each lookup so a change applies without restart.
        std::function<QString()> settingModelPath;
        int threadCount = 0; // 0: the engine decides
        // Benchmarks only: see LlmInference::Options.
        std::optional<std::int64_t> forcedResponseTokens;
        // See LlmInference::Options; PARLUNE_DRAFT=off in the environment turns it off too (benchmarks).
        bool draftFromPrompt = true;
        // Drops caches and the warm-up under memory pressure; must outlive the engine. May be null.
        MemoryPressureSource* memoryPressure = nullptr;
    };

    explicit OnDeviceEngine(Options options);
    // Stops generation at the next token and drops queued model work, so destruction never waits
    // for a whole answer.
    ~OnDeviceEngine();
    OnDeviceEngine(const OnDeviceEngine&) = delete;
    OnDeviceEngine& operator=(const OnDeviceEngine&) = delete;

    LlmLanguageModelFramework& framework() { return *framework_; }
    // Shared with the coordinator and the settings window, which hold it for their own lifetime.
    const std::shared_ptr<OnDeviceModelClient>& client() const { return client_; }

private:
    std::unique_ptr<LlmLanguageModelFramework> framework_;
    std::shared_ptr<OnDeviceModelClient> client_;
};

} // namespace parlune
