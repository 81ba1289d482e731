#include "inference/ModelLocator.h"

#include "core/diagnostics/PrintableText.h"
#include "inference/ModelBundle.h"
#include "llm/gguf/GgufFile.h"
#include "llm/gguf/MappedFile.h"
#include "llm/model/Model.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <system_error>

#include <sys/stat.h>

namespace parlune {

namespace {

std::string environment(const char* name) {
    const char* value = std::getenv(name);
    return value ? std::string(value) : std::string();
}

// Reports of files already inspected, by path; a file whose identity changed is inspected again.
class InspectionCache {
public:
    std::optional<ModelFileReport> find(const std::filesystem::path& path,
                                        const ModelFileIdentity& identity) {
        const std::lock_guard lock(mutex_);
        const auto it = reports_.find(path);
        if (it == reports_.end() || !(it->second.identity == identity)) {
            return std::nullopt;
        }
        return it->second;
    }

    void insert(const ModelFileReport& report) {
        const std::lock_guard lock(mutex_);
        if (reports_.size() >= maxEntries) {
            reports_.clear(); // a rare, cheap reset beats unbounded growth
        }
        reports_[report.path] = report;
    }

private:
    static constexpr std::size_t maxEntries = 1024;
    std::mutex mutex_;
    std::map<std::filesystem::path, ModelFileReport> reports_;
};

ModelFileIdentity identityFrom(const struct stat& info) {
    return {static_cast<std::uint64_t>(info.st_dev), static_cast<std::uint64_t>(info.st_ino),
            static_cast<std::int64_t>(info.st_size),
            static_cast<std::int64_t>(info.st_mtim.tv_sec) * 1'000'000'000 + info.st_mtim.tv_nsec};
}

InspectionCache& inspectionCache() {
    static InspectionCache cache;
    return cache;
}

} // namespace

std::string ModelFileReport::explanation() const {
    if (usable()) {
        return {};
    }
    return "The model file " + printableText(path.string()) +
           " cannot be used: " + printableText(problem, 1024) + ".";
}

std::optional<ModelFileIdentity> ModelLocator::identityOf(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
        return std::nullopt;
    }
    return identityFrom(info);
}

std::string ModelLocator::noModelExplanation() {
    return "No model file was found. Put a GGUF model in " + printableText(defaultModelsFolder().string()) +
           ", set PARLUNE_MODEL, or set localModelPath in the settings.";
}

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
    report.name = printableText(path.filename().string());
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        const int error = errno;
        report.problem = error == ENOENT ? "no such file" : std::strerror(error);
        return report;
    }
    if (!S_ISREG(info.st_mode)) {
        report.problem = llm::MappedFile::nonRegularReason(info.st_mode);
        return report;
    }
    report.identity = identityFrom(info);
    if (std::optional<ModelFileReport> known = inspectionCache().find(path, report.identity)) {
        known->source = source;
        return *known;
    }
    try {
        const ModelBundle bundle = ModelBundle::load(path);
        const llm::GgufFile& file = bundle.model->file();
        if (const auto name = file.getString("general.name"); name && !name->empty()) {
            report.name = printableText(*name);
        }
        report.architecture = bundle.model->config().architectureName;
        report.contextLength = bundle.model->config().contextLength;
        if (const auto languages = file.getStringArray("general.languages")) {
            for (const std::string_view language : *languages) {
                report.languages.emplace_back(printableText(language, 32));
            }
        }
    } catch (const ModelBundle::Unusable& failure) {
        report.problem = failure.what();
    }
    inspectionCache().insert(report);
    return report;
}

namespace {

// The folder's *.gguf entries by name, whatever their type: a FIFO or a directory is listed
// (and reported as such by inspect) without being opened.
std::vector<std::filesystem::path> folderCandidates(const std::filesystem::path& folder) {
    std::error_code error;
    std::vector<std::filesystem::path> found;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end;
         it.increment(error)) {
        if (it->path().extension() == ".gguf") {
            found.push_back(it->path());
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

} // namespace

std::vector<ModelFileReport> ModelLocator::survey(const Places& places) {
    std::vector<ModelFileReport> reports;
    if (!places.settingPath.empty()) {
        reports.push_back(inspect(places.settingPath, ModelFileReport::Source::setting));
    }
    if (!places.environmentPath.empty()) {
        reports.push_back(inspect(places.environmentPath, ModelFileReport::Source::environment));
    }
    for (const auto& path : folderCandidates(places.modelsFolder)) {
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
    for (const std::filesystem::path& path : folderCandidates(places.modelsFolder)) {
        ModelFileReport report = inspect(path, ModelFileReport::Source::modelsFolder);
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
