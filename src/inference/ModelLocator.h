#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace parlune {

// Which file, as it is on disk: a replaced or rewritten file gets a new identity.
struct ModelFileIdentity {
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    std::int64_t size = 0;
    std::int64_t modifiedNanoseconds = 0;

    friend bool operator==(const ModelFileIdentity&, const ModelFileIdentity&) = default;
};

// What a model file offers and, when it cannot be used, why.
struct ModelFileReport {
    enum class Source { setting, environment, modelsFolder };

    std::filesystem::path path;
    Source source = Source::modelsFolder;
    std::string problem; // empty: usable; else the reason, e.g. "is not a regular file (a FIFO)"
    std::string name;    // general.name, or the file name; printable (see printableText)
    std::string architecture;
    std::int64_t contextLength = 0;
    std::vector<std::string> languages; // general.languages; empty: not stated
    ModelFileIdentity identity;         // of the file inspected

    bool usable() const { return problem.empty(); }
    // One printable sentence naming the file and the reason it cannot be used; empty when usable.
    std::string explanation() const;
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
    // The chosen file: the explicit one whether usable or not, else the first usable one in the
    // folder (those after it are not inspected); none when there is no candidate at all.
    static std::optional<ModelFileReport> choose(const Places& places);

    // Whether the engine can run the file: the same load the backend does (ModelBundle), weights
    // left in the file. A report is kept per path while the file's identity stays the same.
    static ModelFileReport inspect(const std::filesystem::path& path, ModelFileReport::Source source);
    // Why there is no candidate at all, naming where one may go (the default models folder).
    static std::string noModelExplanation();
    // The identity of the regular file at `path` now; none when there is no such file.
    static std::optional<ModelFileIdentity> identityOf(const std::filesystem::path& path);

    static const char* sourceName(ModelFileReport::Source source);
};

} // namespace parlune
