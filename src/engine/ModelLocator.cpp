#include "engine/ModelLocator.h"

#include "llm/gguf/GgufFile.h"
#include "llm/model/ModelConfig.h"
#include "llm/tokenizer/ChatFormat.h"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <system_error>

namespace parlune {

namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

} // namespace

std::filesystem::path ModelLocator::defaultModelsFolder() {
    const std::string dataHome = environment("XDG_DATA_HOME");
    std::filesystem::path base;
    if (!dataHome.empty() && std::filesystem::path(dataHome).is_absolute()) {
        base = dataHome;
    } else {
        base = std::filesystem::path(environment("HOME")) / ".local" / "share";
    }
    return base / "parlune" / "models";
}

ModelLocator::Places ModelLocator::placesFromEnvironment(std::string settingPath) {
    return Places{std::move(settingPath), environment("PARLUNE_MODEL"), defaultModelsFolder()};
}

const char* ModelLocator::sourceName(ModelFileReport::Source source) {
    switch (source) {
    case ModelFileReport::Source::setting:
        return "setting localModelPath";
    case ModelFileReport::Source::environment:
        return "PARLUNE_MODEL";
    case ModelFileReport::Source::modelsFolder:
        return "models folder";
    }
    return "";
}

ModelFileReport ModelLocator::inspect(const std::filesystem::path& path, ModelFileReport::Source source) {
    ModelFileReport report;
    report.path = path;
    report.source = source;
    report.name = path.filename().string();
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) {
        report.problem = "no such file";
        return report;
    }
    try {
        const auto file = llm::GgufFile::open(path);
        if (const auto name = file->getString("general.name"); name && !name->empty()) {
            report.name = std::string(*name);
        }
        const llm::ModelConfig config = llm::ModelConfig::fromGguf(*file);
        report.architecture = config.architectureName;
        report.contextLength = config.contextLength;
        if (!file->hasKey("tokenizer.ggml.model")) {
            report.problem = "the file has no tokenizer";
            return report;
        }
        const auto chatTemplate = file->getString("tokenizer.chat_template");
        if (!chatTemplate) {
            report.problem = "the file has no chat template";
            return report;
        }
        (void)llm::ChatFormat::fromTemplate(*chatTemplate);
        if (const auto languages = file->getStringArray("general.languages")) {
            for (const std::string_view language : *languages) {
                report.languages.emplace_back(language);
            }
        }
    } catch (const std::exception& failure) {
        report.problem = failure.what();
    }
    return report;
}

std::vector<ModelFileReport> ModelLocator::survey(const Places& places) {
    std::vector<ModelFileReport> reports;
    if (!places.settingPath.empty()) {
        reports.push_back(inspect(places.settingPath, ModelFileReport::Source::setting));
    }
    if (!places.environmentPath.empty()) {
        reports.push_back(inspect(places.environmentPath, ModelFileReport::Source::environment));
    }
    std::error_code error;
    std::vector<std::filesystem::path> found;
    for (std::filesystem::directory_iterator it(places.modelsFolder, error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().extension() == ".gguf") {
            found.push_back(it->path());
        }
    }
    std::sort(found.begin(), found.end());
    for (const auto& path : found) {
        reports.push_back(inspect(path, ModelFileReport::Source::modelsFolder));
    }
    return reports;
}

std::optional<ModelFileReport> ModelLocator::choose(const Places& places) {
    // Explicit choices come first and stand even when unusable: the user asked for that file.
    if (!places.settingPath.empty()) {
        return inspect(places.settingPath, ModelFileReport::Source::setting);
    }
    if (!places.environmentPath.empty()) {
        return inspect(places.environmentPath, ModelFileReport::Source::environment);
    }
    std::optional<ModelFileReport> firstUnusable;
    for (ModelFileReport& report : survey(places)) {
        if (report.usable()) {
            return report;
        }
        if (!firstUnusable) {
            firstUnusable = std::move(report);
        }
    }
    return firstUnusable;
}

} // namespace parlune
