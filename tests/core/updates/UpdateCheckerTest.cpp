#include "../models/LoopbackHttpsServer.h"

#include "core/updates/Ed25519Signature.h"
#include "core/updates/UpdateChecker.h"
#include "support/QtPrinters.h"
#include "support/RunTask.h"
#include "support/TestFiles.h"

#include <QFile>
#include <QNetworkAccessManager>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sodium.h>

namespace parlune {
namespace {

using test::pumpUntil;
using test::writeFile;
using testing::LoopbackHttpsServer;

struct KeyPair {
    QByteArray publicKey;
    QByteArray secretKey;

    static KeyPair generate() {
        KeyPair keys;
        keys.publicKey.resize(crypto_sign_PUBLICKEYBYTES);
        keys.secretKey.resize(crypto_sign_SECRETKEYBYTES);
        crypto_sign_keypair(reinterpret_cast<unsigned char*>(keys.publicKey.data()),
                            reinterpret_cast<unsigned char*>(keys.secretKey.data()));
        return keys;
    }

    QByteArray sign(const QByteArray& message) const {
        QByteArray signature(crypto_sign_BYTES, '\0');
        crypto_sign_detached(reinterpret_cast<unsigned char*>(signature.data()), nullptr,
                             reinterpret_cast<const unsigned char*>(message.constData()),
                             static_cast<unsigned long long>(message.size()),
                             reinterpret_cast<const unsigned char*>(secretKey.constData()));
        return signature;
    }
};

TEST(Ed25519SignatureTest, AcceptsOnlyTheSignedBytesUnderTheSigningKey) {
    ASSERT_GE(sodium_init(), 0);
    const KeyPair keys = KeyPair::generate();
    QTemporaryDir folder;
    const QString path = folder.filePath(QStringLiteral("archive.tar.gz"));
    const QByteArray archive(100'000, 'x');
    writeFile(path, archive);

    EXPECT_EQ(Ed25519Signature::verifyFile(path, keys.sign(archive), keys.publicKey), QString());
    EXPECT_EQ(
        Ed25519Signature::verifyFile(path, keys.sign(archive), KeyPair::generate().publicKey),
        QStringLiteral("The signature of archive.tar.gz does not match the update key, so it was deleted."));
    QByteArray tampered = archive;
    tampered[5000] = 'y';
    EXPECT_FALSE(Ed25519Signature::verifyFile(path, keys.sign(tampered), keys.publicKey).isEmpty());
    EXPECT_EQ(Ed25519Signature::verifyFile(path, keys.sign(archive).left(63), keys.publicKey),
              QStringLiteral("The signature of archive.tar.gz is malformed, so it was not trusted."));

    const QString empty = folder.filePath(QStringLiteral("empty"));
    writeFile(empty, {});
    EXPECT_EQ(Ed25519Signature::verifyFile(empty, keys.sign({}), keys.publicKey), QString());
}

class UpdateCheckerTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_GE(sodium_init(), 0);
        keys_ = KeyPair::generate();
        if (const QString problem = server_.start(served_.path()); !problem.isEmpty()) {
            GTEST_SKIP() << problem.toStdString();
        }
        transport_.extraTrustedCertificates = server_.certificates();
        archive_ = QByteArray(200'000, 'a');
        writeFile(served_.filePath(QStringLiteral("parlune-0.2.0.tar.gz")), archive_);
    }

    void publishFeed(const QByteArray& signature) {
        const QByteArray item = "<item><title>Parlune 0.2.0</title><u:version>0.2.0</u:version>"
                                "<enclosure url=\"" +
                                server_.url(QStringLiteral("/files/parlune-0.2.0.tar.gz")).toEncoded() +
                                "\" length=\"" + QByteArray::number(archive_.size()) + "\" u:edSignature=\"" +
                                signature.toBase64() + "\"/></item>";
        writeFile(served_.filePath(QStringLiteral("appcast.xml")),
                  "<rss xmlns:u=\"http://example.invalid/u\"><channel>" + item + "</channel></rss>");
    }

    UpdateCheckResult check(UpdateChecker& checker) {
        std::optional<UpdateCheckResult> result;
        const Subscription subscription =
            checker.checked.connect([&](const UpdateCheckResult& r) { result = r; });
        EXPECT_TRUE(checker.check());
        EXPECT_TRUE(pumpUntil([&] { return result.has_value(); }, 15000));
        return result.value_or(
            UpdateCheckResult{UpdateCheckResult::Outcome::failed, std::nullopt, QStringLiteral("timeout")});
    }

    std::unique_ptr<UpdateChecker> checker(const QString& currentVersion) {
        return std::make_unique<UpdateChecker>(network_, server_.url(QStringLiteral("/files/appcast.xml")),
                                               keys_.publicKey, currentVersion, transport_);
    }

    static VerifiedDownload::State run(VerifiedDownload& download) {
        download.start();
        pumpUntil(
            [&] {
                return download.state() == VerifiedDownload::State::finished ||
                       download.state() == VerifiedDownload::State::failed;
            },
            15000);
        return download.state();
    }

    KeyPair keys_;
    QTemporaryDir served_;
    QTemporaryDir downloads_;
    LoopbackHttpsServer server_;
    QNetworkAccessManager network_;
    DownloadTransport transport_;
    QByteArray archive_;
};

TEST_F(UpdateCheckerTest, ANewerSignedReleaseIsOfferedAndItsArchiveVerified) {
    publishFeed(keys_.sign(archive_));
    auto updates = checker(QStringLiteral("0.1.0"));
    const UpdateCheckResult result = check(*updates);
    ASSERT_EQ(result.outcome, UpdateCheckResult::Outcome::updateAvailable) << result.failure.toStdString();
    ASSERT_TRUE(result.offer);
    EXPECT_EQ(result.offer->version, QStringLiteral("0.2.0"));

    auto archive = updates->download(*result.offer, downloads_.path());
    ASSERT_EQ(run(*archive), VerifiedDownload::State::finished) << archive->failure().toStdString();
    EXPECT_EQ(test::readFile(downloads_.filePath(QStringLiteral("parlune-0.2.0.tar.gz"))), archive_);

    EXPECT_EQ(check(*checker(QStringLiteral("0.2.0"))).outcome, UpdateCheckResult::Outcome::upToDate);
}

TEST_F(UpdateCheckerTest, AnArchiveWithABadSignatureIsDeletedNotKept) {
    QByteArray forged = archive_;
    forged[0] = 'b';
    publishFeed(keys_.sign(forged));
    auto updates = checker(QStringLiteral("0.1.0"));
    const UpdateCheckResult result = check(*updates);
    ASSERT_EQ(result.outcome, UpdateCheckResult::Outcome::updateAvailable);

    auto archive = updates->download(*result.offer, downloads_.path());
    ASSERT_EQ(run(*archive), VerifiedDownload::State::failed);
    EXPECT_EQ(archive->failure(),
              QStringLiteral(
                  "The signature of parlune-0.2.0.tar.gz does not match the update key, so it was deleted."));
    EXPECT_TRUE(QDir(downloads_.path()).isEmpty());
}

TEST_F(UpdateCheckerTest, AMissingFeedIsOneSentence) {
    UpdateChecker updates(network_, server_.url(QStringLiteral("/status/404")), keys_.publicKey,
                          QStringLiteral("0.1.0"), transport_);
    const UpdateCheckResult result = check(updates);
    EXPECT_EQ(result.outcome, UpdateCheckResult::Outcome::failed);
    EXPECT_EQ(result.failure, QStringLiteral("The update check could not read the feed (HTTP 404)."));
}

} // namespace
} // namespace parlune
