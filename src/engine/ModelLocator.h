#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace parlune {

// What a model file offers and, when it cannot be used, why.
struct ModelFileReport {
    enum class Source { setting, environment, modelsFolder };

    std::filesystem::path path;
    Source source = Source::modelsFolder;
    std::string problem; // empty: usable
    std::string name;    // general.name, or the file name
    std::string architecture;
    std::int64_t contextLength = 0;
    std::vector<std::string> languages; // general.languages; empty: not stated

    bool usable() const { return problem.empty(); }
};

// Finds the model file: an explicit path from the settings, else PARLUNE_MODEL, else the first
// usable *.gguf (by name) in $XDG_DATA_HOME/parlune/models (~/.local/share/parlune/models).
// An explicit choice that is unusable is reported, never silently replaced by another file.
class ModelLocator {
public:
    struct Places {
        std::string settingPath;     // empty: none
        std::string environmentPath; // empty: none
        std::filesystem::path modelsFolder;
    };

    // The places of this process: PARLUNE_MODEL and the XDG models folder.
    static Places placesFromEnvironment(std::string settingPath);
    static std::filesystem::path defaultModelsFolder();

    // Every candidate in the order they are considered, each inspected.
    static std::vector<ModelFileReport> survey(const Places& places);
    // The chosen file: the explicit one whether usable or not, else the first usable one;
    // none when there is no candidate at all.
    static std::optional<ModelFileReport> choose(const Places& places);

    // Reads the file's metadata (no weights) and checks the engine can run it.
    static ModelFileReport inspect(const std::filesystem::path& path, ModelFileReport::Source source);

    static const char* sourceName(ModelFileReport::Source source);
};

} // namespace parlune
