#include "LoopbackHttpsServer.h"

#include "core/models/VerifiedDownload.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/TestFiles.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QNetworkAccessManager>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <gtest/gtest.h>

namespace parlune {
namespace {

using State = VerifiedDownload::State;
using test::pumpUntil;
using test::readFile;
using test::writeFile;
using testing::LoopbackHttpsServer;

class VerifiedDownloadTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(served_.isValid() && target_.isValid());
        QRandomGenerator random(11);
        content_.resize(3 * 1024 * 1024 + 123);
        random.fillRange(reinterpret_cast<quint32*>(content_.data()), content_.size() / 4);
        writeFile(served_.filePath(QStringLiteral("model.bin")), content_);
        sha256_ = QCryptographicHash::hash(content_, QCryptographicHash::Sha256).toHex();
        if (const QString problem = server_.start(served_.path()); !problem.isEmpty()) {
            GTEST_SKIP() << problem.toStdString();
        }
        transport_.extraTrustedCertificates = server_.certificates();
    }

    QString destination() const { return target_.filePath(QStringLiteral("models/model.gguf")); }

    std::unique_ptr<VerifiedDownload> download(const QString& route, QByteArray sha256 = {},
                                               std::optional<qint64> expectedSize = std::nullopt) {
        return std::make_unique<VerifiedDownload>(
            network_, DownloadRequest{server_.url(route), destination(), std::move(sha256), expectedSize, {}},
            transport_);
    }

    // Starts (or resumes) and waits for the end; returns the final state.
    static State run(VerifiedDownload& download, int timeoutMs = 15000) {
        download.start();
        pumpUntil([&] { return download.state() == State::finished || download.state() == State::failed; },
                  timeoutMs);
        return download.state();
    }

    QTemporaryDir served_;
    QTemporaryDir target_;
    QByteArray content_;
    QByteArray sha256_;
    LoopbackHttpsServer server_;
    QNetworkAccessManager network_;
    DownloadTransport transport_;
};

TEST_F(VerifiedDownloadTest, AVerifiedDownloadIsRenamedIntoPlace) {
    auto model = download(QStringLiteral("/files/model.bin"), sha256_, content_.size());
    QList<DownloadProgress> reports;
    const Subscription subscription =
        model->progressed.connect([&](const DownloadProgress& p) { reports << p; });

    ASSERT_EQ(run(*model), State::finished) << model->failure().toStdString();
    EXPECT_EQ(readFile(destination()), content_);
    EXPECT_FALSE(QFile::exists(model->partPath()));
    ASSERT_FALSE(reports.isEmpty());
    EXPECT_EQ(reports.back().receivedBytes, content_.size());
    EXPECT_EQ(reports.back().totalBytes, content_.size());
}

TEST_F(VerifiedDownloadTest, WithoutAPinnedHashThePublishedOneDecides) {
    auto published = download(QStringLiteral("/linked/model.bin"));
    ASSERT_EQ(run(*published), State::finished) << published->failure().toStdString();
    EXPECT_EQ(readFile(destination()), content_);
    ASSERT_TRUE(QFile::remove(destination()));

    auto wrong = download(QStringLiteral("/linked-wrong/model.bin"));
    ASSERT_EQ(run(*wrong), State::failed);
    EXPECT_EQ(
        wrong->failure(),
        QStringLiteral("The downloaded model.gguf does not match its published SHA-256, so it was deleted."));
    EXPECT_FALSE(QFile::exists(wrong->partPath()));
    EXPECT_FALSE(QFile::exists(destination()));

    auto unverifiable = download(QStringLiteral("/files/model.bin"));
    ASSERT_EQ(run(*unverifiable), State::failed);
    EXPECT_EQ(unverifiable->failure(), QStringLiteral("The server publishes no SHA-256 for model.gguf, so it "
                                                      "could not be verified; nothing was kept."));
    EXPECT_FALSE(QFile::exists(unverifiable->partPath()));
}

TEST_F(VerifiedDownloadTest, AnInterruptedTransferResumesFromItsPartFileAfterARestart) {
    auto first = download(QStringLiteral("/flaky/model.bin"), sha256_);
    ASSERT_EQ(run(*first), State::failed);
    EXPECT_TRUE(first->failure().startsWith(QStringLiteral("The download of model.gguf ")))
        << first->failure().toStdString();
    const qint64 kept = QFileInfo(first->partPath()).size();
    EXPECT_EQ(kept, content_.size() / 2);
    first.reset(); // as if the program quit

    auto second = download(QStringLiteral("/flaky/model.bin"), sha256_);
    std::optional<qint64> resumedAt;
    const Subscription subscription = second->progressed.connect([&](const DownloadProgress& p) {
        if (!resumedAt) {
            resumedAt = p.receivedBytes;
        }
    });
    ASSERT_EQ(run(*second), State::finished) << second->failure().toStdString();
    EXPECT_EQ(resumedAt, kept) << "the transfer continued from the .part instead of starting over";
    EXPECT_EQ(readFile(destination()), content_);
}

TEST_F(VerifiedDownloadTest, APartFileThatIsAlreadyCompleteIsVerifiedWithoutTransfer) {
    writeFile(destination() + QStringLiteral(".part"), content_);
    auto model = download(QStringLiteral("/files/model.bin"), sha256_);
    ASSERT_EQ(run(*model), State::finished) << model->failure().toStdString();
    EXPECT_EQ(readFile(destination()), content_);
}

TEST_F(VerifiedDownloadTest, ServerErrorsAndUnsafeAddressesEndInOneSentenceAndTouchNothing) {
    const struct {
        QString route;
        QString failure;
    } cases[] = {
        {QStringLiteral("/status/404"), QStringLiteral("The server has no file at %1 (HTTP 404).")
                                            .arg(server_.url(QStringLiteral("/status/404")).toString())},
        {QStringLiteral("/status/500"),
         QStringLiteral(
             "The server answered the download of model.gguf with an error (HTTP 500 Internal Server Error); "
             "try again later.")},
        {QStringLiteral("/to-http/model.bin"),
         QStringLiteral(
             "The server sent the download to http://127.0.0.1:%1/files/model.bin, which is not an https "
             "address, so it was stopped.")
             .arg(server_.url({}).port())},
    };
    for (const auto& test : cases) {
        auto model = download(test.route, sha256_);
        ASSERT_EQ(run(*model), State::failed) << test.route.toStdString();
        EXPECT_EQ(model->failure(), test.failure);
        EXPECT_FALSE(QFile::exists(model->partPath()));
    }

    VerifiedDownload plain(
        network_,
        DownloadRequest{QUrl(QStringLiteral("http://127.0.0.1/model.bin")), destination(), sha256_, {}, {}},
        transport_);
    EXPECT_EQ(run(plain), State::failed);
    EXPECT_EQ(
        plain.failure(),
        QStringLiteral(
            "Parlune downloads only over https, and http://127.0.0.1/model.bin is not an https address."));

    writeFile(destination(), "the user's own file");
    auto model = download(QStringLiteral("/files/model.bin"), sha256_);
    ASSERT_EQ(run(*model), State::failed);
    EXPECT_EQ(model->failure(),
              destination() + QStringLiteral(" already exists, so nothing was downloaded."));
    EXPECT_EQ(readFile(destination()), QByteArray("the user's own file"));

    // A .part that is a link would have the download appended to the file it points at.
    ASSERT_TRUE(QFile::remove(destination()));
    const QString elsewhere = target_.filePath(QStringLiteral("elsewhere"));
    writeFile(elsewhere, "someone's data");
    ASSERT_TRUE(QFile::link(elsewhere, destination() + QStringLiteral(".part")));
    auto linked = download(QStringLiteral("/files/model.bin"), sha256_);
    ASSERT_EQ(run(*linked), State::failed);
    EXPECT_EQ(linked->failure(),
              linked->partPath() + QStringLiteral(" is in the way and is not a file Parlune wrote."));
    EXPECT_EQ(readFile(elsewhere), QByteArray("someone's data"));
}

TEST_F(VerifiedDownloadTest, AStalledServerFailsWithinTheTimeOutAndKeepsWhatArrived) {
    transport_.stallTimeout = std::chrono::milliseconds(800);
    auto model = download(QStringLiteral("/stall/model.bin"), sha256_);
    ASSERT_EQ(run(*model, 10000), State::failed); // the sentence below says which timeout ended it
    EXPECT_EQ(model->failure(), QStringLiteral("The download of model.gguf stalled: nothing arrived for 0.8 "
                                               "seconds. Start it again to resume."));
    EXPECT_EQ(QFileInfo(model->partPath()).size(), 100);
}

TEST_F(VerifiedDownloadTest, NotEnoughSpaceRefusesBeforeWritingAnything) {
    QStringList asked;
    transport_.freeSpace = [&](const QString& folder) -> std::optional<qint64> {
        asked << folder;
        return 1'000'000;
    };
    auto announced = download(QStringLiteral("/files/model.bin"), sha256_, content_.size());
    announced->start();
    EXPECT_EQ(announced->state(), State::failed) << "refused before any request";
    EXPECT_EQ(announced->failure(),
              QStringLiteral("There is not enough free space for model.gguf in %1: it needs 3.1 MB "
                             "and 1.0 MB are free.")
                  .arg(QFileInfo(destination()).path()));
    EXPECT_EQ(asked, QStringList{QFileInfo(destination()).path()});

    auto unannounced = download(QStringLiteral("/files/model.bin"), sha256_);
    ASSERT_EQ(run(*unannounced), State::failed);
    EXPECT_TRUE(
        unannounced->failure().startsWith(QStringLiteral("There is not enough free space for model.gguf")));
    EXPECT_FALSE(QFile::exists(unannounced->partPath()));
}

TEST_F(VerifiedDownloadTest, PauseKeepsThePartFileAndCancelRemovesIt) {
    transport_.stallTimeout = std::chrono::milliseconds(10000);
    auto model = download(QStringLiteral("/stall/model.bin"), sha256_);
    model->start();
    ASSERT_TRUE(pumpUntil([&] { return model->progress().receivedBytes == 100; }, 10000));
    model->pause();
    EXPECT_EQ(model->state(), State::paused);
    EXPECT_EQ(QFileInfo(model->partPath()).size(), 100);
    model->cancel();
    EXPECT_EQ(model->state(), State::idle);
    EXPECT_FALSE(QFile::exists(model->partPath()));
}

} // namespace
} // namespace parlune
