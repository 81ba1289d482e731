#include "cli/ModelLibraryCommands.h"

#include "core/models/CatalogueDownload.h"
#include "core/models/MachineResources.h"
#include "core/models/ModelCatalogue.h"
#include "core/models/ModelDiscovery.h"
#include "core/models/ModelRecommendation.h"
#include "core/models/VerifiedDownload.h"
#include "inference/LlmModelFileInspector.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QLocale>
#include <QNetworkAccessManager>

#include <cstdio>

namespace parlune::cli {

namespace {

std::string sizeText(qint64 bytes) {
    return QLocale::c().formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat).toStdString();
}

int discover(const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        std::fprintf(stderr, "parlune-cli discover: takes no arguments\n");
        return 2;
    }
    const QList<DiscoveredModel> models = ModelDiscovery(std::make_shared<LlmModelFileInspector>())
                                              .scan(ModelStorePlaces::fromSystemEnvironment());
    if (models.isEmpty()) {
        std::printf("No models found in the folders of local-model tools.\n");
    }
    for (const DiscoveredModel& model : models) {
        const ModelFileFacts& facts = model.facts;
        std::printf("%s  [%s]  %s", model.displayName.toStdString().c_str(),
                    modelSourceName(model.source).toStdString().c_str(), sizeText(model.sizeBytes).c_str());
        if (!facts.architecture.isEmpty()) {
            std::printf("  %s %s, context %lld, %s", facts.architecture.toStdString().c_str(),
                        facts.weightType.toStdString().c_str(), static_cast<long long>(facts.contextLength),
                        facts.hasChatTemplate ? "chat template" : "no chat template");
        }
        std::printf("\n    %s\n    %s\n", model.path.toStdString().c_str(),
                    model.usable() ? "Parlune can run it"
                                   : ("not usable: " + facts.problem.toStdString()).c_str());
    }
    return 0;
}

std::optional<QList<CatalogueEntry>> loadCatalogue(const char* command) {
    const QString path = ModelCatalogue::installedPath();
    if (path.isEmpty()) {
        std::fprintf(stderr, "parlune-cli %s: the model catalogue is not installed\n", command);
        return std::nullopt;
    }
    ModelCatalogue::Result catalogue = ModelCatalogue::load(path);
    if (!catalogue.problem.isEmpty()) {
        std::fprintf(stderr, "parlune-cli %s: %s\n", command, catalogue.problem.toStdString().c_str());
        return std::nullopt;
    }
    return std::move(catalogue.entries);
}

int catalogue(const std::vector<std::string>& arguments) {
    if (!arguments.empty()) {
        std::fprintf(stderr, "parlune-cli catalogue: takes no arguments\n");
        return 2;
    }
    const std::optional<QList<CatalogueEntry>> entries = loadCatalogue("catalogue");
    if (!entries) {
        return 1;
    }
    const std::optional<MachineResources> machine = MachineResources::current();
    const std::optional<CatalogueEntry> recommended =
        machine ? ModelRecommendation::recommend(*entries, *machine) : std::nullopt;
    for (const CatalogueEntry& entry : *entries) {
        const bool chosen = recommended && recommended->id == entry.id;
        const std::optional<qint64> size = entry.expectedSize();
        std::printf("%s %-30s %-24s %8s  %s%s\n", chosen ? "*" : " ", entry.id.toStdString().c_str(),
                    entry.displayName.toStdString().c_str(), size ? sizeText(*size).c_str() : "?",
                    entry.licence.toStdString().c_str(),
                    entry.downloadable() ? "" : "  (not downloadable yet)");
        std::printf("  %-30s %s\n", "", entry.notes.toStdString().c_str());
    }
    if (recommended) {
        std::printf("\n* recommended for this computer (%d cores, %s of memory)\n", machine->cores,
                    sizeText(machine->totalMemoryBytes).c_str());
    }
    return 0;
}

int download(const std::vector<std::string>& arguments) {
    QString folder = ModelStorePlaces::fromSystemEnvironment().front().path;
    std::string id;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        if (arguments[i] == "--folder" && i + 1 < arguments.size()) {
            folder = QString::fromStdString(arguments[++i]);
        } else if (id.empty() && arguments[i].rfind("--", 0) != 0) {
            id = arguments[i];
        } else {
            std::fprintf(stderr, "parlune-cli download: unexpected argument '%s'\n", arguments[i].c_str());
            return 2;
        }
    }
    const std::optional<QList<CatalogueEntry>> entries = loadCatalogue("download");
    if (!entries) {
        return 1;
    }
    const auto entry = std::find_if(entries->begin(), entries->end(),
                                    [&](const CatalogueEntry& e) { return e.id.toStdString() == id; });
    if (entry == entries->end()) {
        std::fprintf(stderr, "parlune-cli download: no catalogue model '%s' (see parlune-cli catalogue)\n",
                     id.c_str());
        return 2;
    }
    const auto request = catalogueDownloadRequest(*entry, folder);
    if (const QString* refusal = std::get_if<QString>(&request)) {
        std::fprintf(stderr, "%s\n", refusal->toStdString().c_str());
        return 1;
    }
    QNetworkAccessManager network;
    VerifiedDownload transfer(network, std::get<DownloadRequest>(request));
    QEventLoop loop;
    const Subscription progress = transfer.progressed.connect([](const DownloadProgress& p) {
        std::fprintf(stderr, "\r%s of %s at %s/s   ", sizeText(p.receivedBytes).c_str(),
                     p.totalBytes ? sizeText(*p.totalBytes).c_str() : "?",
                     sizeText(static_cast<qint64>(p.bytesPerSecond)).c_str());
    });
    const Subscription ended = transfer.stateChanged.connect([&](VerifiedDownload::State state) {
        if (state == VerifiedDownload::State::finished || state == VerifiedDownload::State::failed) {
            loop.quit();
        }
    });
    transfer.start();
    if (transfer.state() != VerifiedDownload::State::failed) {
        loop.exec();
    }
    if (transfer.state() != VerifiedDownload::State::finished) {
        std::fprintf(stderr, "\n%s\n", transfer.failure().toStdString().c_str());
        return 1;
    }
    std::fprintf(stderr, "\nVerified and saved as %s\n",
                 std::get<DownloadRequest>(request).destinationPath.toStdString().c_str());
    return 0;
}

} // namespace

CliCommand discoverCommand() {
    return {"discover", "discover", "list models other tools keep here, and whether Parlune runs them",
            discover};
}

CliCommand catalogueCommand() {
    return {"catalogue", "catalogue", "list recommended models; * marks the one for this computer",
            catalogue};
}

CliCommand downloadCommand() {
    return {"download", "download ID [--folder DIR]", "download a catalogue model, verified by its SHA-256",
            download};
}

} // namespace parlune::cli
