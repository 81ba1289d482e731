#include "inference/OnDeviceEngine.h"

#include "inference/ModelLocator.h"

#include <cstdlib>
#include <string_view>

namespace parlune {

OnDeviceEngine::OnDeviceEngine(Options options) {
    LlmInference::Options inference;
    inference.locate = [explicitPath = options.explicitModelPath,
                        settingPath = options.settingModelPath]() -> std::optional<ModelFileReport> {
        if (!explicitPath.empty()) {
            return ModelLocator::inspect(explicitPath, ModelFileReport::Source::setting);
        }
        const QString setting = settingPath ? settingPath().trimmed() : QString();
        return ModelLocator::choose(ModelLocator::placesFromEnvironment(setting.toStdString()));
    };
    inference.threadCount = options.threadCount;
    inference.forcedResponseTokens = options.forcedResponseTokens;
    const char* draftSetting = std::getenv("PARLUNE_DRAFT");
    inference.draftFromPrompt =
        options.draftFromPrompt && !(draftSetting && std::string_view(draftSetting) == "off");
    inference.memoryPressure = options.memoryPressure;
    framework_ = std::make_unique<LlmLanguageModelFramework>(std::move(inference));
    client_ = std::make_shared<OnDeviceModelClient>(*framework_, options.memoryPressure);
}

OnDeviceEngine::~OnDeviceEngine() {
    // The client's tasks may still be suspended on the framework; they end when it goes.
    client_->invalidateWarmup();
    framework_->stopAllWork();
    client_.reset();
    framework_.reset();
}

} // namespace parlune
