#include "core/models/ModelCatalogue.h"
#include "core/models/CatalogueDownload.h"
#include "core/models/ModelRecommendation.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

QByteArray catalogueWith(const QByteArray& entryFields) {
    return R"({"formatVersion":1,"models":[{"id":"m","displayName":"M","fileName":"m.gguf","licence":"L",)"
           R"("architecture":"qwen2","parametersBillions":1.5)" +
           entryFields + "}]}";
}

const QByteArray kRevision(40, 'a');

TEST(ModelCatalogueTest, TheShippedCatalogueReadsAndPinsEveryDownload) {
    const QString path = ModelCatalogue::installedPath();
    ASSERT_FALSE(path.isEmpty());
    const ModelCatalogue::Result catalogue = ModelCatalogue::load(path);
    ASSERT_EQ(catalogue.problem, QString());
    ASSERT_GE(catalogue.entries.size(), 7);
    for (const CatalogueEntry& entry : catalogue.entries) {
        if (entry.downloadable()) {
            EXPECT_EQ(
                entry.url.path(),
                QStringLiteral("/%1/resolve/%2/%3").arg(entry.repository, entry.revision, entry.fileName))
                << entry.id.toStdString();
            EXPECT_TRUE(entry.expectedSize().has_value()) << entry.id.toStdString();
        }
    }
}

TEST(ModelCatalogueTest, AcceptsAnUnpinnedEntryButOffersNoDownloadForIt) {
    const ModelCatalogue::Result catalogue =
        ModelCatalogue::parse(catalogueWith(R"(,"approximateSizeBytes":1000)"));
    ASSERT_EQ(catalogue.problem, QString());
    ASSERT_EQ(catalogue.entries.size(), 1);
    EXPECT_FALSE(catalogue.entries[0].downloadable());
    EXPECT_EQ(catalogue.entries[0].expectedSize(), 1000);
    EXPECT_TRUE(catalogue.entries[0].sha256.isEmpty());
}

TEST(ModelCatalogueTest, RejectsEntriesThatCouldFetchOrVerifyTheWrongThing) {
    const QByteArray pinnedUrl = "https://hub.example/o/r/resolve/" + kRevision + "/m.gguf";
    const struct {
        QByteArray fields;
        const char* problem;
    } cases[] = {
        {R"(,"revision":")" + kRevision + R"(","url":"https://hub.example/o/r/resolve/main/m.gguf")",
         "The model catalogue's m has a download address that is not pinned to its revision and file."},
        {R"(,"revision":")" + kRevision + R"(","url":"http://hub.example/o/r/resolve/)" + kRevision +
             R"(/m.gguf")",
         "The model catalogue's m has a download address that is not https."},
        {R"(,"url":")" + pinnedUrl + R"(")",
         "The model catalogue's m has a download address that is not pinned to its revision and file."},
        {R"(,"revision":"abc123")",
         "The model catalogue's m has a revision that is not a 40-digit commit hash."},
        {R"(,"sha256":")" + QByteArray(64, 'A') + R"(")",
         "The model catalogue's m has a SHA-256 that is not 64 lowercase hex digits."},
        {R"(,"sizeBytes":-5)", "The model catalogue's m has an invalid sizeBytes."},
        {R"(,"fileName":"../m.gguf")", "The model catalogue's m has no plain .gguf file name."},
    };
    for (const auto& test : cases) {
        EXPECT_EQ(ModelCatalogue::parse(catalogueWith(test.fields)).problem,
                  QString::fromLatin1(test.problem))
            << test.fields.toStdString();
    }
    EXPECT_EQ(ModelCatalogue::parse("{\"formatVersion\":1,\"models\":[{\"id\":\"m\"").problem,
              QStringLiteral("The model catalogue is not valid JSON."));
    EXPECT_EQ(ModelCatalogue::parse(R"({"formatVersion":2,"models":[]})").problem,
              QStringLiteral("The model catalogue has a format this version cannot read."));
    const QByteArray twice = catalogueWith("");
    EXPECT_EQ(
        ModelCatalogue::parse(twice.left(twice.size() - 2) + "," + twice.mid(twice.indexOf('[') + 1)).problem,
        QStringLiteral("The model catalogue lists m twice."));
}

TEST(ModelCatalogueTest, APinnedEntryDownloadsIntoTheModelsFolderUnderItsHash) {
    const QByteArray pinned =
        R"(,"revision":")" + kRevision + R"(","url":"https://hub.example/o/r/resolve/)" + kRevision +
        R"(/m.gguf","sha256":")" + QByteArray(64, 'c') + R"(","approximateSizeBytes":900)";
    const ModelCatalogue::Result catalogue = ModelCatalogue::parse(catalogueWith(pinned));
    ASSERT_EQ(catalogue.entries.size(), 1);
    const auto request = catalogueDownloadRequest(catalogue.entries[0], QStringLiteral("/data/models"));
    ASSERT_TRUE(std::holds_alternative<DownloadRequest>(request));
    const DownloadRequest& download = std::get<DownloadRequest>(request);
    EXPECT_EQ(download.destinationPath, QStringLiteral("/data/models/m.gguf"));
    EXPECT_EQ(download.expectedSha256, QByteArray(64, 'c'));
    EXPECT_EQ(download.expectedSize, 900);

    const ModelCatalogue::Result unpinned = ModelCatalogue::parse(catalogueWith(""));
    ASSERT_EQ(unpinned.entries.size(), 1);
    EXPECT_EQ(
        std::get<QString>(catalogueDownloadRequest(unpinned.entries[0], QStringLiteral("/data/models"))),
        QStringLiteral("M has no download pinned to a checked revision yet, so Parlune does not fetch it."));
}

CatalogueEntry entry(const char* id, double parameters, qint64 size, int rank, bool downloadable = true) {
    CatalogueEntry result;
    result.id = QString::fromLatin1(id);
    result.parametersBillions = parameters;
    result.approximateSizeBytes = size;
    result.qualityRank = rank;
    if (downloadable) {
        result.url = QUrl(QStringLiteral("https://hub.example/") + result.id);
    }
    return result;
}

constexpr qint64 GB = 1'000'000'000;

TEST(ModelRecommendationTest, PicksTheBestModelThatFitsHalfTheMemoryAndIsQuickOnTheseCores) {
    const QList<CatalogueEntry> entries{
        entry("tiny", 1.2, 808'000'000, 1),
        entry("small", 1.5, 986'000'000, 3),
        entry("small-alike", 1.7, 1'280'000'000, 3),
        entry("medium", 3.1, 1'930'000'000, 5),
        entry("large-unpinned", 4.0, 2'500'000'000, 6, false),
    };
    const auto pick = [&](qint64 memory, int cores) {
        const auto chosen = ModelRecommendation::recommend(entries, MachineResources{memory, memory, cores});
        return chosen ? chosen->id : QStringLiteral("none");
    };
    EXPECT_EQ(pick(16 * GB, 8), QStringLiteral("medium")) << "an unpinned model is never recommended";
    EXPECT_EQ(pick(16 * GB, 2), QStringLiteral("small"))
        << "two cores cap the size; the smaller of equals wins";
    EXPECT_EQ(pick(5 * GB, 8), QStringLiteral("small")) << "medium needs 2.8 GB, more than half of 5 GB";
    EXPECT_EQ(pick(2 * GB, 8), QStringLiteral("none"));

    EXPECT_TRUE(ModelRecommendation::fitsAvailableMemory(entries[3], MachineResources{16 * GB, 3 * GB, 4}));
    EXPECT_FALSE(ModelRecommendation::fitsAvailableMemory(entries[3], MachineResources{16 * GB, 2 * GB, 4}));

    EXPECT_EQ(
        ModelRecommendation::memoryShortfall(1'200'000'000, MachineResources{16 * GB, 1'400'000'000, 4}),
        QStringLiteral("needs 2.0 GB of memory, 1.4 GB free"));
    EXPECT_EQ(ModelRecommendation::memoryShortfall(1'200'000'000, MachineResources{16 * GB, 3 * GB, 4}),
              QString());
}

TEST(MachineResourcesTest, ReadsMeminfoAndFallsBackToFreeMemoryOnOldKernels) {
    const auto resources = MachineResources::fromMeminfo(
        "MemTotal:       16318480 kB\nMemFree:          512000 kB\nMemAvailable:    8159240 kB\n", 0);
    ASSERT_TRUE(resources);
    EXPECT_EQ(resources->totalMemoryBytes, qint64{16318480} * 1024);
    EXPECT_EQ(resources->availableMemoryBytes, qint64{8159240} * 1024);
    EXPECT_EQ(resources->cores, 1);

    const auto old = MachineResources::fromMeminfo("MemTotal: 2048 kB\nMemFree: 1024 kB\n", 4);
    ASSERT_TRUE(old);
    EXPECT_EQ(old->availableMemoryBytes, 1024 * 1024);

    EXPECT_FALSE(MachineResources::fromMeminfo("MemFree: 1024 kB\n", 4));
    EXPECT_FALSE(MachineResources::fromMeminfo("MemTotal: lots\n", 4));

    const auto here = MachineResources::current();
    ASSERT_TRUE(here) << "/proc/meminfo reports a size of 0 and must still be read";
    EXPECT_GT(here->totalMemoryBytes, here->availableMemoryBytes / 2);
    EXPECT_GT(here->availableMemoryBytes, 0);
}

} // namespace
} // namespace parlune
