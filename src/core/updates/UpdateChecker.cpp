#include "core/updates/UpdateChecker.h"

#include "core/updates/Ed25519Signature.h"

#include <QFileInfo>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>

#include <utility>

namespace parlune {

namespace {

constexpr qint64 kMaxFeedBytes = 1 << 20;

// The archive's own name from its address, never a path and never hidden.
QString archiveName(const AppcastItem& offer) {
    const QString name = QFileInfo(offer.enclosureUrl.path()).fileName();
    if (name.isEmpty() || name.startsWith(u'.')) {
        return QStringLiteral("parlune-update-") + offer.version;
    }
    return name;
}

} // namespace

UpdateChecker::UpdateChecker(QNetworkAccessManager& network, QUrl feedUrl, QByteArray publicKey,
                             QString currentVersion, DownloadTransport transport)
    : network_(network), feedUrl_(std::move(feedUrl)), publicKey_(std::move(publicKey)),
      currentVersion_(std::move(currentVersion)), transport_(std::move(transport)) {}

UpdateChecker::~UpdateChecker() {
    if (QNetworkReply* reply = std::exchange(reply_, nullptr)) {
        QObject::disconnect(reply, nullptr, &context_, nullptr);
        reply->abort();
        reply->deleteLater();
    }
}

std::unique_ptr<UpdateChecker> UpdateChecker::forThisBuild(QNetworkAccessManager& network,
                                                           const UpdateConfiguration& configuration,
                                                           const UpdateBuildMetadata& metadata,
                                                           QString currentVersion) {
    if (!configuration.canUseSparkle(metadata.feedUrl, metadata.publicKey)) {
        return nullptr;
    }
    return std::make_unique<UpdateChecker>(network, configuration.appcastURL,
                                           QByteArray::fromBase64(metadata.publicKey->toLatin1()),
                                           std::move(currentVersion));
}

bool UpdateChecker::check() {
    if (checking()) {
        return false;
    }
    if (feedUrl_.scheme() != QStringLiteral("https")) {
        finish(
            {UpdateCheckResult::Outcome::failed, std::nullopt,
             QStringLiteral("The update feed %1 is not an https address.").arg(feedUrl_.toDisplayString())});
        return true;
    }
    QNetworkRequest request = transport_.requestFor(feedUrl_);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(static_cast<int>(transport_.stallTimeout.count()));
    QNetworkReply* reply = network_.get(request);
    reply_ = reply;
    QObject::connect(reply, &QNetworkReply::downloadProgress, &context_,
                     [this, reply](qint64 received, qint64) {
                         if (reply == reply_ && received > kMaxFeedBytes) {
                             reply->abort();
                         }
                     });
    QObject::connect(reply, &QNetworkReply::finished, &context_, [this, reply] {
        if (reply == reply_) {
            onFinished();
        }
    });
    return true;
}

void UpdateChecker::onFinished() {
    QNetworkReply* reply = std::exchange(reply_, nullptr);
    reply->deleteLater();
    const int status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    if (reply->error() != QNetworkReply::NoError || status != 200) {
        const QString why = status >= 400 ? QStringLiteral("HTTP %1").arg(status) : reply->errorString();
        finish({UpdateCheckResult::Outcome::failed, std::nullopt,
                QStringLiteral("The update check could not read the feed (%1).").arg(why)});
        return;
    }
    const Appcast::Result feed = Appcast::parse(reply->readAll());
    if (!feed.problem.isEmpty()) {
        finish({UpdateCheckResult::Outcome::failed, std::nullopt, feed.problem});
        return;
    }
    if (std::optional<AppcastItem> offer = Appcast::newestAbove(feed.items, currentVersion_)) {
        finish({UpdateCheckResult::Outcome::updateAvailable, std::move(offer), {}});
    } else {
        finish({UpdateCheckResult::Outcome::upToDate, std::nullopt, {}});
    }
}

void UpdateChecker::finish(UpdateCheckResult result) {
    checked.emit(result);
}

std::unique_ptr<VerifiedDownload> UpdateChecker::download(const AppcastItem& offer,
                                                          const QString& folder) const {
    DownloadRequest request;
    request.url = offer.enclosureUrl;
    request.destinationPath = folder + u'/' + archiveName(offer);
    request.expectedSize = offer.enclosureLength;
    request.verify = [signature = offer.edSignature, key = publicKey_, length = offer.enclosureLength,
                      name = archiveName(offer)](const QString& path) {
        if (QFileInfo(path).size() != length) {
            return QStringLiteral(
                "The update archive is not the size the feed announced, so it was deleted.");
        }
        return Ed25519Signature::verifyFile(path, signature, key, name);
    };
    return std::make_unique<VerifiedDownload>(network_, std::move(request), transport_);
}

} // namespace parlune
